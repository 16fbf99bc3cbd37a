#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/FileManager.h"
#include "values/Date.h"

namespace zun {

/// What a file is called while it is written, beside its place; letters and digits for the X.
inline constexpr std::string_view kTemporaryFileName = ".zun-XXXXXX";

/// Removes from `folder` what killed processes were writing: this user's own files of such
/// names, changed last before `end`, or whenever. Nothing else, and no link.
void removeLeftovers(FileManager& files, const std::string& folder, std::optional<Date> end = std::nullopt);

}  // namespace zun
