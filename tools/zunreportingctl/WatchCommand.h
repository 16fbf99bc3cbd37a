#pragma once

#include "Subcommand.h"

namespace zun {

/// `watch`: opens an aggregating session and prints the messages that come back, one JSON
/// object a line.
[[nodiscard]] Subcommand addWatchCommand(CLI::App& app);

}  // namespace zun
