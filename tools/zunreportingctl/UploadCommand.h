#pragma once

#include "Subcommand.h"

namespace zun {

/// `upload`: has files uploaded one after the other and tells of each what became of it.
[[nodiscard]] Subcommand addUploadCommand(CLI::App& app);

}  // namespace zun
