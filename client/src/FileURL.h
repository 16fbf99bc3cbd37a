#pragma once

#include <string>
#include <string_view>

namespace zunreporting {

/// The file URL of an absolute path: every byte that is neither unreserved in URLs nor a
/// slash is percent-encoded.
[[nodiscard]] std::string fileURL(std::string_view absolutePath);

}  // namespace zunreporting
