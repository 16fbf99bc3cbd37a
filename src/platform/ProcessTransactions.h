#pragma once

namespace zun {

/// Tells the service manager that work is pending. At most one transaction is open.
/// Any thread; may be called under locks, so neither call waits for anything.
class ProcessTransactions {
 public:
  virtual ~ProcessTransactions() = default;

  virtual void begin() = 0;
  virtual void end() = 0;
};

}  // namespace zun
