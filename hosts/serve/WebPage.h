// The page `sxscan serve` serves at "/", for scanning from any browser: its
// HTML, style sheet and script, built into the program from
// hosts/serve/web/ (cmake/EmbedFiles.cmake writes the source that holds
// them). The page works through the server's eSCL resources, as any client.
#pragma once
#include <cstddef>

namespace sx::host::web {

struct File {
  const char* path;  // as requested: "/" for index.html
  const char* contentType;
  const unsigned char* bytes;
  size_t size;
};

extern const File kFiles[];
extern const size_t kFileCount;

}  // namespace sx::host::web
