#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "zunreporting/ReportingSession.h"

namespace CLI {
class App;
}

namespace zun {

inline constexpr int kExitOK = 0;
inline constexpr int kExitEventsFailed = 1;  // some lines were no events, or were not taken
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoSession = 3;  // no daemon, not entitled, or no storebag

struct SendOptions {
  std::string address = zunreporting::ReportingSession::kDefaultAddress;
  zunreporting::SessionInfo session{.sessionID = 1,
                                    .clientType = 7,
                                    .clientVersion = 1,
                                    .requireUserInfo = {},
                                    .batchEvents = false,
                                    .hierarchyToken = {},
                                    .hierarchyLevel = 0};
  std::optional<std::string> clientName;
  std::optional<std::string> serviceName;
  bool noUserInfoRequired = false;
  bool noFlush = false;
  bool verbose = false;
};

/// Adds `send` and its options.
void addSendCommand(CLI::App& app, SendOptions& options);

/// Reads events as JSON, one object a line, from `input` and reports each over one
/// session. A line that is no event is told on `errors`; the others are sent all the
/// same. Gives the exit code.
int runSendCommand(const SendOptions& options, std::istream& input, std::ostream& output,
                   std::ostream& errors, bool showProgress);

}  // namespace zun
