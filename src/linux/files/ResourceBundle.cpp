#include "linux/files/ResourceBundle.h"

#include <cerrno>

#include "linux/files/LinuxFileManager.h"
#include "values/PropertyList.h"

namespace zun {

namespace {
constexpr uint64_t kMaximumResourceBytes = uint64_t{16} << 20;
}

std::optional<std::string> ResourceBundle::resource(std::string_view name, std::string_view type) const {
  const std::string file = fmt::format("{}.{}", name, type);
  if (file.find('/') != std::string::npos) return std::nullopt;
  const std::string path = fmt::format("{}/{}", folder_, file);
  auto bytes = LinuxFileManager({}, {}).readFile(path, kMaximumResourceBytes);
  if (bytes) return std::move(*bytes);
  if (bytes.error().code != ENOENT && bytes.error().code != ENOTDIR) {
    log_.error("ResourceBundle: could not read '{}': {}", path, bytes.error().description);
  }
  return std::nullopt;
}

std::optional<std::string> ResourceBundle::version() const {
  const auto bytes = resource("info", "plist");
  if (!bytes) return std::nullopt;
  const auto information = parsePropertyList(*bytes);
  if (!information) {
    log_.error("ResourceBundle: could not read '{}/info.plist': {}", folder_, information.error());
    return std::nullopt;
  }
  const Dictionary* const dictionary = information->dictionary();
  if (dictionary == nullptr) return std::nullopt;
  const Value& version = (*dictionary)["version"];
  if (!version.isString() && !version.isNumber()) return std::nullopt;
  return version.description();
}

}  // namespace zun
