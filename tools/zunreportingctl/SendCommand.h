#pragma once

#include "Subcommand.h"

namespace zun {

/// `send`: reads events as JSON, one object a line, from the input and reports each over
/// one session. A line that is no event is told on the error output; the others are sent
/// all the same.
[[nodiscard]] Subcommand addSendCommand(CLI::App& app);

}  // namespace zun
