#pragma once

#include <string>

#include "platform/FileManager.h"

namespace zun {

enum class LetterCase : bool { kSignificant, kIgnored };

/// Removes everything below `folder` whose path relative to it contains a match of
/// the regular expression (POSIX extended; one that is not valid matches nothing).
/// Failures are ignored.
void deleteMatchingItems(FileManager& files, const std::string& expression, LetterCase letterCase,
                         const std::string& folder);

}  // namespace zun
