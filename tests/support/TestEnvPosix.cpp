// The test environment on Linux: everything under a temporary SX_ROOT.
#include "support/TestEnv.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace sxtest {

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

fs::path MakeTempFolder(const std::string& prefix) {
  std::string tmpl = "/tmp/" + prefix + "XXXXXX";
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  return tmpl;
}

void HangWatchdog(unsigned seconds) { alarm(seconds); }

std::string NativePath(std::string path) { return path; }

FaultingPage::FaultingPage() : Size(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
  void* map = mmap(nullptr, 2 * Size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) throw std::runtime_error("mmap failed");
  Base = static_cast<uint8_t*>(map);
  munmap(Base + Size, Size);
}

FaultingPage::~FaultingPage() { munmap(Base, Size); }

TempRoot::TempRoot() {
  root_ = MakeTempFolder("sxtest-");
  windows_ = root_ / "windows";
  system_ = windows_ / "system32";
  fs::create_directories(Twain());
  fs::create_directories(system_);
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

Library::Library() {
  handle_ = dlopen(SX_TEST_LIBSXSCAN, RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    ADD_FAILURE() << "cannot load libsxscan.so: " << dlerror();
    return;
  }
  ResolveExports();
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
