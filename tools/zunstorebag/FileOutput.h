#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zun {

enum class Overwrite : bool { kRefuse, kReplace };

/// Writes a whole file with exactly these permissions (less the umask's), or leaves
/// what is there as it is. Under kRefuse an existing file is never replaced, not even
/// one that appears meanwhile. Under kReplace links are followed; what is no regular file,
/// or has the name of an open one (/dev/stdout, /dev/fd/3), is written to instead.
/// The error is a text for people.
[[nodiscard]] std::optional<std::string> writeWholeFile(const std::string& path, std::string_view bytes,
                                                        unsigned mode, Overwrite overwrite);

}  // namespace zun
