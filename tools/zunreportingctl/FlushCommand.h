#pragma once

#include "Subcommand.h"

namespace zun {

/// `flush`: opens a session, has its backends post what they hold, and waits for it.
[[nodiscard]] Subcommand addFlushCommand(CLI::App& app);

}  // namespace zun
