// Version records: ELF section extraction, the version block built from its
// text, and queries of the block never read outside what they were given;
// the loadable-segment check made before a module is loaded likewise.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/text/VersionRecord.h"

using namespace sx::plat;

namespace {

void QueryAll(const std::string& block) {
  if (block.empty()) return;
  static const char* const kQueries[] = {
      "\\VarFileInfo\\Translation", "\\StringFileInfo\\040904B0\\CompanyName",
      "\\StringFileInfo\\040904B0\\ProductName", "\\StringFileInfo\\040904B0\\FileVersion", "x",
  };
  for (const char* q : kQueries) {
    const void* value = nullptr;
    uint32_t length = 0;
    if (!QueryVersionBlock(block.data(), q, &value, &length)) continue;
    const char* p = static_cast<const char*>(value);
    if (p < block.data() || p + length > block.data() + block.size()) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Copied so that any read past the end is caught, even of a short input.
  std::string image(reinterpret_cast<const char*>(data), size);
  std::string section;
  if (ExtractVersionSection(image.data(), image.size(), section)) {
    if (section.size() > size) __builtin_trap();
    QueryAll(BuildVersionBlock(section.data(), section.size()));
  }
  QueryAll(BuildVersionBlock(image.data(), image.size()));
  ByteSource source;
  source.Size = image.size();
  source.Context = &image;
  source.Read = [](void* context, uint64_t offset, void* dst, size_t count) {
    const auto* bytes = static_cast<const std::string*>(context);
    if (offset > bytes->size() || count > bytes->size() - offset) __builtin_trap();
    std::memcpy(dst, bytes->data() + offset, count);
    return true;
  };
  ElfSegmentsInFile(source);
  return 0;
}
