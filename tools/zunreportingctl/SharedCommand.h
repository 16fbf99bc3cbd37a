#pragma once

#include "Subcommand.h"

namespace zun {

/// `shared set` and `shared remove`: one entry of the data that the sessions of a
/// hierarchy share.
[[nodiscard]] Subcommand addSharedCommand(CLI::App& app);

}  // namespace zun
