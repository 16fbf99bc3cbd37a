#pragma once

#include <string>
#include <string_view>

namespace zun {

/// UTF-8 as D-Bus wants it: well formed (no surrogates, nothing above U+10FFFF) and
/// without zero bytes.
[[nodiscard]] bool isDBusText(std::string_view text);

/// `text` made fit for the wire: cut at a zero byte, malformed bytes as U+FFFD.
[[nodiscard]] std::string asDBusText(std::string_view text);

/// "/" or "/a/b_1": elements of ASCII letters, digits and underscores.
[[nodiscard]] bool isDBusObjectPath(std::string_view path);

/// At least two elements with dots between, none beginning with a digit; also the
/// form of error names.
[[nodiscard]] bool isDBusInterfaceName(std::string_view name);

[[nodiscard]] bool isDBusMemberName(std::string_view name);

}  // namespace zun
