#pragma once

#include <memory>
#include <string>

#include "platform/ModuleLoader.h"
#include "zunreporting/kodo_adaptor.h"

namespace zun {

/// A loaded shared object, seen through the C interface of zunreporting/kodo_adaptor.h.
/// Calls into it are noexcept: an exception that leaves the object's code has left its
/// state half changed, and ends the process. Any thread.
class SharedObjectModule final : public Module {
 public:
  using EntryPoint = decltype(&zun_kodo_class_named);

  /// `entryPoint` stays callable as long as the process lives; `path` is for messages.
  SharedObjectModule(std::string path, EntryPoint entryPoint);

  [[nodiscard]] Result<std::unique_ptr<ModuleObject>, std::string> createInstance(
      const char* className) const override;

 private:
  const std::string path_;
  const EntryPoint entryPoint_;
};

}  // namespace zun
