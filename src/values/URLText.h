#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zun {

// URLs as text. Any thread.

/// Letters, digits and the bytes in `plain` stay, every other byte becomes %XX.
[[nodiscard]] std::string percentEncoded(std::string_view text, std::string_view plain);

/// `text` with what is allowed in a URL's query as it is: letters, digits and
/// "-._~!$&'()*+,;=:@/?", thus "&" and "=" too.
[[nodiscard]] std::string percentEncodedForQuery(std::string_view text);

/// None for a broken escape or one of a NUL.
[[nodiscard]] std::optional<std::string> percentDecoded(std::string_view text);

/// Whether `url` is something that a request can be sent to: scheme http or https, a
/// host, and no blank or control character anywhere.
[[nodiscard]] bool isHTTPURL(std::string_view url);

}  // namespace zun
