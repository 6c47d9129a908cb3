// The module's own folder on a system with dladdr.
#include <dlfcn.h>

#include "modules/common/ModuleIni.h"

namespace sx::modini {

std::string ModuleFolder() {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&ModuleFolder), &info) || !info.dli_fname) return ".";
  const std::string path = info.dli_fname;
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsAbsolutePath(std::string_view path) { return !path.empty() && path.front() == '/'; }

}  // namespace sx::modini
