#include "linux/system/SystemDeviceProperties.h"

#include <sys/utsname.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "values/UTF8.h"

namespace zun {

namespace {

constexpr uint64_t kMaximumSystemFile = 64 * 1024;

/// Names this program to the machine id: the id that we tell cannot be matched with
/// that of another program, nor led back to the machine's own.
constexpr sd_id128_t kApplication{
    {0x6d, 0x2e, 0x4f, 0x91, 0xa3, 0x58, 0x4c, 0x07, 0xb1, 0x9a, 0x52, 0xe0, 0x77, 0x3d, 0xc4, 0x18}};

std::optional<std::string> uniqueDeviceID() {
  sd_id128_t id{};
  if (sd_id128_get_machine_app_specific(kApplication, &id) < 0) return std::nullopt;
  std::array<char, SD_ID128_STRING_MAX> text{};
  std::string name = sd_id128_to_string(id, text.data());
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char character) { return static_cast<char>(std::toupper(character)); });
  return name;
}

std::optional<std::string> kernelRelease() {
  utsname system{};
  return ::uname(&system) == 0 ? std::optional<std::string>(system.release) : std::nullopt;
}

std::optional<std::string> hostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name.front() == '\0') return std::nullopt;
  return replacingInvalidUTF8(name.data());
}

/// Vendors leave these where a fact should stand.
bool isPlaceholder(std::string_view text) {
  constexpr std::array<std::string_view, 9> kPlaceholders{
      "to be filled by o.e.m.", "default string", "not specified",
      "not applicable",         "none",           "system product name",
      "system serial number",   "unknown",        "0"};
  return std::any_of(kPlaceholders.begin(), kPlaceholders.end(), [text](std::string_view placeholder) {
    return equalsIgnoringASCIICase(text, placeholder);
  });
}

/// The value of an os-release line, as a shell would read it.
std::string unquoted(std::string_view text) {
  const bool isQuoted =
      text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front();
  if (!isQuoted) return std::string(text);
  const bool hasEscapes = text.front() == '"';
  text = text.substr(1, text.size() - 2);
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (hasEscapes && text[i] == '\\' && i + 1 < text.size()) ++i;
    out += text[i];
  }
  return out;
}

}  // namespace

SystemDeviceProperties::SystemDeviceProperties(const FileManager& files, SystemLog& log,
                                               std::string systemRoot)
    : files_(files),
      log_(log),
      systemRoot_(std::move(systemRoot)),
      overrides_(files, files.resolve("/etc/zunreportingd/device.plist")) {}

std::optional<std::string> SystemDeviceProperties::property(std::string_view key) const {
  if (auto value = overriddenProperty(key)) return value;
  const auto either = [](std::optional<std::string> first, auto second) {
    return first ? std::move(first) : second();
  };
  if (key == "UniqueDeviceID") return uniqueDeviceID();
  if (key == "ProductVersion") return osRelease("VERSION_ID");
  if (key == "BuildVersion") return either(osRelease("BUILD_ID"), kernelRelease);
  if (key == "HWModelStr") {
    return either(lineOf("/sys/class/dmi/id/board_name"),
                  [this] { return lineOf("/proc/device-tree/model"); });
  }
  if (key == "ProductType") {
    return either(lineOf("/sys/class/dmi/id/product_name"),
                  [this] { return lineOf("/proc/device-tree/model"); });
  }
  if (key == "SerialNumber") {
    return either(lineOf("/sys/class/dmi/id/product_serial"),
                  [this] { return lineOf("/proc/device-tree/serial-number"); });
  }
  if (key == "DeviceName") return hostName();
  return std::nullopt;
}

std::optional<std::string> SystemDeviceProperties::overriddenProperty(std::string_view key) const {
  const MutexLock lock(mutex_);
  bool isNewFailure = false;
  const PropertyListFile::Content& content = overrides_.read(&isNewFailure);
  if (isNewFailure) {
    log_.error("SystemDeviceProperties: could not read '{}': {}", overrides_.path(), content.failure);
  }
  const Value& value = content.dictionary[key];
  if (!value.isString() && !value.isNumber()) return std::nullopt;
  return value.description();
}

std::optional<std::string> SystemDeviceProperties::osRelease(std::string_view field) const {
  auto text = files_.readFile(systemRoot_ + "/etc/os-release", kMaximumSystemFile);
  if (!text) text = files_.readFile(systemRoot_ + "/usr/lib/os-release", kMaximumSystemFile);
  if (!text) return std::nullopt;
  std::string_view rest = *text;
  while (!rest.empty()) {
    const std::string_view line = trimmed(rest.substr(0, rest.find('\n')));
    rest.remove_prefix(
        std::min(rest.size(), rest.find('\n') == rest.npos ? rest.size() : rest.find('\n') + 1));
    if (!line.starts_with(field) || line.substr(field.size(), 1) != "=") continue;
    const std::string value = unquoted(line.substr(field.size() + 1));
    return value.empty() ? std::nullopt : std::optional(replacingInvalidUTF8(value));
  }
  return std::nullopt;
}

std::optional<std::string> SystemDeviceProperties::lineOf(std::string_view path) const {
  const auto text = files_.readFile(systemRoot_ + std::string(path), kMaximumSystemFile);
  if (!text) return std::nullopt;
  // Device tree strings end with a NUL.
  const std::string_view line = trimmed(*text, std::string_view(" \t\r\n\0", 5));
  if (line.empty() || isPlaceholder(line)) return std::nullopt;
  return replacingInvalidUTF8(line);
}

}  // namespace zun
