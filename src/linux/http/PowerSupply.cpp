#include "linux/http/PowerSupply.h"

#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace zun {
namespace {

std::string firstLine(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

}  // namespace

SysfsPowerSupply::SysfsPowerSupply(std::string folder) : folder_(std::move(folder)) {}

bool SysfsPowerSupply::isExternalPowerConnected() {
  bool hasSource = false;
  bool isDischarging = false;
  std::error_code failure;
  std::filesystem::directory_iterator entry(folder_, failure);
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    const std::filesystem::path& supply = entry->path();
    // A mouse's or a headset's battery says nothing about this machine.
    if (firstLine(supply / "scope") == "Device") continue;
    if (firstLine(supply / "type") == "Battery") {
      isDischarging = isDischarging || firstLine(supply / "status") == "Discharging";
      continue;
    }
    hasSource = true;
    const std::string online = firstLine(supply / "online");
    if (!online.empty() && online != "0") return true;
  }
  return !hasSource && !isDischarging;
}

}  // namespace zun
