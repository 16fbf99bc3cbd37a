#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/ModuleLoader.h"
#include "platform/Mutex.h"

namespace zun {

/// Loads shared objects that speak the C interface of zunreporting/kodo_adaptor.h. Their
/// code runs with all that this process may do, so it is taken from files only that
/// nobody but root and the daemon's own user can change or replace.
///
/// Threading: any thread; loads run one at a time.
/// Ownership: what was loaded is the process's and outlives this loader. A shared object
/// may have started threads, or left handlers and thread-local data behind, whose code
/// must not go away.
class SharedObjectLoader final : public ModuleLoader {
 public:
  Result<std::shared_ptr<const Module>, std::string> load(const std::string& path) override;

 private:
  using FileIdentity = std::pair<dev_t, ino_t>;

  Result<std::shared_ptr<const Module>, std::string> loadFile(const std::string& path) REQUIRES(mutex_);
  Result<void*, std::string> handleOfFile(const std::string& path) REQUIRES(mutex_);

  Mutex mutex_;
  std::map<std::string, std::shared_ptr<const Module>> modules_ GUARDED_BY(mutex_);
  /// Also of objects that turned out to be no modules.
  std::map<FileIdentity, void*> handles_ GUARDED_BY(mutex_);
};

}  // namespace zun
