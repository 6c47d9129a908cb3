// The serve options' hand-over from `sxscan serve` to the server program.
#include <gtest/gtest.h>

#ifdef SX_KIT_BUILT
#include "kit/ServeOptions.h"

namespace sx::host {
namespace {

// What one end writes the other reads back, every option set or none.
TEST(ServeHandOver, ArgumentsReadBackAsTheOptions) {
  const ServeOptions all{.listen = "::1", .port = 0, .source = "USB - QM7110V  1.00", .name = "Office -- scanner",
                         .announce = false};
  for (const ServeOptions& sent : {ServeOptions{}, all}) {
    ServeOptions read;
    std::string error;
    ASSERT_TRUE(ReadServeArguments(ServeArguments(sent), &read, &error)) << error;
    EXPECT_TRUE(read.listen == sent.listen && read.port == sent.port && read.source == sent.source &&
                read.name == sent.name && read.announce == sent.announce);
  }
  ServeOptions read;
  std::string error;
  ASSERT_TRUE(ReadServeArguments({"--port=0", "--name=a=b"}, &read, &error)) << error;
  EXPECT_TRUE(read.port == 0 && read.name == "a=b");
  for (const std::vector<std::string>& wrong : {std::vector<std::string>{"--port"}, {"--port", "65536"},
                                               {"--mode", "gray"}, {"--name", ""}}) {
    EXPECT_FALSE(ReadServeArguments(wrong, &read, &error)) << wrong[0];
  }
}

}  // namespace
}  // namespace sx::host

#endif
