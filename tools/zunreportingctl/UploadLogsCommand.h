#pragma once

#include "Subcommand.h"

namespace zun {

/// `upload-logs`: reads records as JSON, one a line, and has them uploaded together, in as
/// few uploads as messages of limited size allow.
[[nodiscard]] Subcommand addUploadLogsCommand(CLI::App& app);

}  // namespace zun
