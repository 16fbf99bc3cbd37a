#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// An object of a class that a loaded module brought along. One thread at a time;
/// other objects of the class may be busy at the same time. Its code is the module's:
/// an exception that leaves it ends the process.
class ModuleObject {
 public:
  virtual ~ModuleObject() = default;

  /// For logs; "(null)" where the object has nothing to say.
  [[nodiscard]] virtual std::string description() const = 0;
  /// True if the object offers the operation of that name.
  [[nodiscard]] virtual bool respondsTo(const char* operation) const = 0;
  /// Calls the operation of that name, which the object offers. Nothing of `dict` is
  /// kept. Takes as long as the module does.
  virtual void perform(const char* operation, uint16_t method, uint16_t respCode, const Dictionary& dict) = 0;
};

/// A loaded module. Any thread.
class Module {
 public:
  virtual ~Module() = default;

  /// A new object of the module's class of that name, or why there is none.
  [[nodiscard]] virtual Result<std::unique_ptr<ModuleObject>, std::string> createInstance(
      const char* className) const = 0;
};

/// Loads modules into this process. What is loaded stays until the process ends. Any
/// thread; one load at a time.
class ModuleLoader {
 public:
  virtual ~ModuleLoader() = default;

  /// The module at `path`, a real path; asked again, the same one. Else why it was not
  /// loaded; the next call tries again. The module's own initialisation runs on the
  /// calling thread.
  [[nodiscard]] virtual Result<std::shared_ptr<const Module>, std::string> load(const std::string& path) = 0;
};

}  // namespace zun
