#pragma once

#include <string>

namespace zun {

/// Knows where the machine's power comes from. One thread at a time.
class PowerSupply {
 public:
  virtual ~PowerSupply() = default;

  /// As of now; reads a few small files.
  [[nodiscard]] virtual bool isExternalPowerConnected() = 0;
};

/// What the kernel lists. A machine that lists no supply hangs on the mains; one that
/// lists batteries only has external power unless one of them discharges.
class SysfsPowerSupply final : public PowerSupply {
 public:
  explicit SysfsPowerSupply(std::string folder = "/sys/class/power_supply");

  [[nodiscard]] bool isExternalPowerConnected() override;

 private:
  const std::string folder_;
};

}  // namespace zun
