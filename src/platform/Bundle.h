#pragma once

#include <optional>
#include <string>

namespace zun {

/// The program's resource folder. Read afresh on each call. Any thread.
class Bundle {
 public:
  virtual ~Bundle() = default;

  /// Bytes of the resource file `name`.`type`, or none.
  [[nodiscard]] virtual std::optional<std::string> resource(std::string_view name,
                                                            std::string_view type) const = 0;

  /// The "version" entry of the information dictionary (info.plist), or none.
  [[nodiscard]] virtual std::optional<std::string> version() const = 0;
};

/// The bundle's version, or "8.0" where there is none.
[[nodiscard]] inline std::string versionOrDefault(const Bundle& bundle) {
  return bundle.version().value_or("8.0");
}

}  // namespace zun
