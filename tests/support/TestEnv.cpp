#include "support/TestEnv.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace sxtest {

std::string DefaultVersionText(const std::string& fileVersion, const std::string& company,
                               const std::string& product) {
  return "\\VarFileInfo\\Translation=hex:09 04 b0 04\n"
         "\\StringFileInfo\\040904B0\\CompanyName=" + company + "\n"
         "\\StringFileInfo\\040904B0\\ProductName=" + product + "\n"
         "\\StringFileInfo\\040904B0\\FileVersion=" + fileVersion + "\n";
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::vector<std::string> ReadLines(const fs::path& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) {
    had_ = true;
    old_ = old;
  }
  if (value) setenv(name, value, 1); else unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_) setenv(name_.c_str(), old_.c_str(), 1); else unsetenv(name_.c_str());
}

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/sxtest-XXXXXX";
  const char* made = mkdtemp(tmpl);
  if (!made) throw std::runtime_error("mkdtemp failed");
  root_ = made;
  fs::create_directories(Twain());
  fs::create_directories(root_ / "windows" / "system32");
  if (const char* old = std::getenv("SX_ROOT")) {
    hadRoot_ = true;
    oldRoot_ = old;
  }
  setenv("SX_ROOT", root_.c_str(), 1);
  unsetenv("SX_SHIFT_HELD");
  unsetenv("SX_AVAILABLE_MEMORY");
}

TempRoot::~TempRoot() {
  if (hadRoot_) setenv("SX_ROOT", oldRoot_.c_str(), 1); else unsetenv("SX_ROOT");
  std::error_code ec;
  fs::permissions(root_, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(root_, ec);
}

void TempRoot::WriteRegistry(const std::string& text) const { WriteFile(root_ / "user.reg", text); }

std::string TempRoot::ReadRegistry() const { return ReadFile(root_ / "user.reg"); }

fs::path TempRoot::InstallModule(const fs::path& source, const std::string& relDir,
                                 const std::string& fileName,
                                 const std::string& versionText) const {
  fs::path dir = relDir.empty() ? Twain() : Twain() / relDir;
  fs::create_directories(dir);
  fs::path target = dir / fileName;
  fs::copy_file(source, target, fs::copy_options::overwrite_existing);
  std::string cmd = std::string(SX_TEST_OBJCOPY) + " --remove-section .sxversion '" +
                    target.string() + "' 2>/dev/null";
  if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << "objcopy failed: " << cmd;
  if (!versionText.empty()) {
    fs::path record = root_ / ("version-" + std::to_string(::getpid()) + ".txt");
    WriteFile(record, versionText);
    cmd = std::string(SX_TEST_OBJCOPY) + " --add-section .sxversion='" + record.string() +
          "' --set-section-flags .sxversion=noload,readonly '" + target.string() + "'";
    if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << "objcopy failed: " << cmd;
    fs::remove(record);
  }
  return target;
}

fs::path TempRoot::InstallVscan(const std::string& relDir, const std::string& iniText,
                                const std::string& versionText,
                                const std::string& fileName) const {
  fs::path target = InstallModule(SX_TEST_VSCAN, relDir, fileName, versionText);
  if (!iniText.empty()) WriteFile(target.parent_path() / "vscan.ini", iniText);
  return target;
}

Library::Library() {
  handle_ = dlopen(SX_TEST_LIBSXSCAN, RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    ADD_FAILURE() << "cannot load libsxscan.so: " << dlerror();
    return;
  }
#define SX_RESOLVE(field, name) field = reinterpret_cast<decltype(field)>(Symbol(name))
  SX_RESOLVE(Load, "SxLoad");
  SX_RESOLVE(Free, "SxFree");
  SX_RESOLVE(GetDS, "SxGetDS");
  SX_RESOLVE(SetDriverById, "SxSetDriverById");
  SX_RESOLVE(SetValue, "SxSetValue");
  SX_RESOLVE(GetValue, "SxGetValue");
  SX_RESOLVE(QueryData, "SxQueryData");
  SX_RESOLVE(Acquire, "SxAcquire");
  SX_RESOLVE(GlobalAlloc, "SxSysGlobalAlloc");
  SX_RESOLVE(GlobalLock, "SxSysGlobalLock");
  SX_RESOLVE(GlobalUnlock, "SxSysGlobalUnlock");
  SX_RESOLVE(GlobalFree, "SxSysGlobalFree");
  SX_RESOLVE(GlobalHandle, "SxSysGlobalHandle");
  SX_RESOLVE(GlobalSize, "SxSysGlobalSize");
#undef SX_RESOLVE
}

Library::~Library() {
  if (handle_) dlclose(handle_);
}

void* Library::Symbol(const char* name) const {
  void* p = handle_ ? dlsym(handle_, name) : nullptr;
  if (!p) ADD_FAILURE() << "missing export " << name;
  return p;
}

}  // namespace sxtest
