#include "linux/system/SharedObjectLoader.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "linux/files/FileTrust.h"
#include "linux/system/SharedObjectModule.h"
#include "zunreporting/kodo_adaptor.h"

namespace zun {

namespace {

/// The object's own initialisation runs in here; what it throws goes no further.
void* openSharedObject(const char* path) noexcept {
  return ::dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
}

std::string loaderMessage() {
  const char* const message = ::dlerror();
  return message == nullptr ? "unknown reason" : message;
}

}  // namespace

Result<std::shared_ptr<const Module>, std::string> SharedObjectLoader::load(const std::string& path) {
  const MutexLock lock(mutex_);
  const auto found = modules_.find(path);
  if (found != modules_.end()) return found->second;
  auto module = loadFile(path);
  if (module) modules_.emplace(path, *module);
  return module;
}

Result<std::shared_ptr<const Module>, std::string> SharedObjectLoader::loadFile(const std::string& path) {
  using Loaded = Result<std::shared_ptr<const Module>, std::string>;
  const auto handle = handleOfFile(path);
  if (!handle) return Loaded::failure(handle.error());
  void* const symbol = ::dlsym(*handle, ZUN_KODO_ENTRY_POINT);
  if (symbol == nullptr) {
    return Loaded::failure(fmt::format("{}: it does not export {}", path, ZUN_KODO_ENTRY_POINT));
  }
  return std::shared_ptr<const Module>(std::make_shared<const SharedObjectModule>(
      path, reinterpret_cast<SharedObjectModule::EntryPoint>(symbol)));
}

Result<void*, std::string> SharedObjectLoader::handleOfFile(const std::string& path) {
  using Handle = Result<void*, std::string>;
  auto file = openTrustedFile(path);
  if (!file) return Handle::failure(file.error());
  struct stat status {};
  if (::fstat(file->get(), &status) != 0) {
    return Handle::failure(fmt::format("{}: {}", path, std::generic_category().message(errno)));
  }
  const FileIdentity identity(status.st_dev, status.st_ino);
  const auto known = handles_.find(identity);
  if (known != handles_.end()) return known->second;
  // By its descriptor, so that the file that was checked is the file that is loaded.
  void* const handle = openSharedObject(fmt::format("/proc/self/fd/{}", file->get()).c_str());
  if (handle == nullptr) return Handle::failure(fmt::format("{}: {}", path, loaderMessage()));
  // Left open for good: the dynamic loader knows the object by this very name from now on,
  // and would give it again for another file that came to have the same number.
  static_cast<void>(file->release());
  handles_.emplace(identity, handle);
  return handle;
}

}  // namespace zun
