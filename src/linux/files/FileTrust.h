#pragma once

#include <sys/stat.h>

#include <string>

#include "linux/files/FileDescriptor.h"
#include "values/Result.h"

namespace zun {

/// Why the daemon must not act on what a file holds: somebody other than root and the
/// daemon's own user owns it or can write it. Null if nobody. Any thread.
[[nodiscard]] const char* reasonToDistrust(const struct stat& status);

/// The regular file at `path`, opened with O_PATH, if nobody but root and the daemon's
/// user can change it or put another in its place; else the reason. So each folder above
/// it is held to the same rule, and no part of the path may be a symbolic link. A sticky
/// folder (such as /tmp), in which nobody can replace what is another's, may stand further
/// up but not hold the file itself. Any thread.
[[nodiscard]] Result<FileDescriptor, std::string> openTrustedFile(const std::string& path);

}  // namespace zun
