#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Subcommand.h"
#include "zunreporting/ReportingSession.h"

namespace zun {

/// The session that a subcommand opens, as its options describe it.
struct SessionOptions {
  zunreporting::SessionInfo info{.sessionID = 1, .clientType = 7, .clientVersion = 1};
  std::optional<std::string> clientName;
  std::optional<std::string> serviceName;
  bool noUserInfoRequired = false;
  bool verbose = false;

  /// Client name when no option gives user information; empty: there is none then.
  std::string defaultClientName;
};

/// Adds the options of the session. `options` lives as long as `command`.
void addSessionOptions(CLI::App& command, SessionOptions& options);

using SessionPointer = std::unique_ptr<zunreporting::ReportingSession>;

/// Connects and says who reports. Null after an error on the context's error output.
[[nodiscard]] SessionPointer introduceSession(const SessionOptions& options, const Context& context,
                                              zunreporting::AggregationHandler aggregation = {});

/// As introduceSession, and has the daemon make the session's backends; with `verbose`,
/// `report` is told which are active.
[[nodiscard]] SessionPointer openSession(const SessionOptions& options, const Context& context,
                                         std::ostream& report,
                                         zunreporting::AggregationHandler aggregation = {});

/// Posts what is batched and waits for it. False after an error on the error output; having
/// nothing to post is none. With `verbose`, the output is told the result.
bool flushSession(zunreporting::ReportingSession& session, const Context& context, bool verbose);

/// Ends the session as wanted. False after an error on the error output.
bool finishSession(zunreporting::ReportingSession& session, const Context& context);

/// A line for the user on the error output, and the exit code that goes with the failure.
ExitCode tellFailure(const Context& context, zunreporting::Failure failure, std::string_view text);

}  // namespace zun
