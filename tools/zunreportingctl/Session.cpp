#include "Session.h"

#include <CLI/CLI.hpp>
#include <charconv>

namespace zun {

namespace {

using zunreporting::ReportingSession;

/// "TOKEN:LEVEL"; the token may hold colons itself. The error is for the user, empty if
/// there is none.
std::string takeParent(const std::string& text, zunreporting::SessionInfo& info) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return "takes TOKEN:LEVEL, not " + text;
  const char* const end = text.data() + text.size();
  int32_t level = 0;
  const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, level);
  if (error != std::errc() || rest != end || level < 0) return "takes a level of 0 or more, not " + text;
  info.hierarchyToken = text.substr(0, colon);
  info.hierarchyLevel = level;
  return {};
}

std::optional<zunreporting::UserInfo> userOf(const SessionOptions& options) {
  if (options.clientName || options.serviceName) {
    return zunreporting::UserInfo{options.clientName.value_or(""), options.serviceName.value_or("")};
  }
  if (options.defaultClientName.empty() || options.noUserInfoRequired) return std::nullopt;
  return zunreporting::UserInfo{options.defaultClientName, ""};
}

}  // namespace

void addSessionOptions(CLI::App& command, SessionOptions& options) {
  auto& info = options.info;
  command.add_option("--client-type", info.clientType, "Client type, which selects the storebag")
      ->capture_default_str();
  command.add_option("--session-id", info.sessionID, "The session's number")->capture_default_str();
  command.add_option("--client-version", info.clientVersion, "The client's version")->capture_default_str();
  const std::string fallback =
      options.defaultClientName.empty() ? "" : "; " + options.defaultClientName + " when there is none";
  command.add_option("--client-name", options.clientName, "User information: client name" + fallback);
  command.add_option("--service-name", options.serviceName, "User information: service name");
  command.add_flag("--no-user-info-required", options.noUserInfoRequired,
                   "The session's events need no user information");
  command.add_flag("--batch", info.batchEvents, "Collect events in batches");
  CLI::Option* const parent = command.add_option_function<std::string>(
      "--parent",
      [&info](const std::string& text) {
        if (const std::string error = takeParent(text, info); !error.empty())
          throw CLI::ValidationError("--parent", error);
      },
      "Places the session in a hierarchy: its token, and its level below the top, which is 0");
  parent->type_name("TOKEN:LEVEL");
  command.add_option("--hierarchy-token", info.hierarchyToken, "The token alone")->excludes(parent);
  command.add_option("--hierarchy-level", info.hierarchyLevel, "The level alone")->excludes(parent);
  command.add_flag("--verbose", options.verbose, "Tell more");
}

SessionPointer introduceSession(const SessionOptions& options, const Context& context,
                                zunreporting::AggregationHandler aggregation) {
  auto connected = ReportingSession::connect(context.address);
  if (!connected) {
    tellFailure(context, connected.failure, connected.error);
    return nullptr;
  }
  auto session = std::move(*connected.value);
  zunreporting::SessionInfo info = options.info;
  info.requireUserInfo = !options.noUserInfoRequired;
  if (const auto set = session->setSessionInfo(info, userOf(options), std::move(aggregation)); !set) {
    tellFailure(context, set.failure,
                "the daemon does not take the session (is this program entitled to report?): " + set.error);
    return nullptr;
  }
  return session;
}

SessionPointer openSession(const SessionOptions& options, const Context& context, std::ostream& report,
                           zunreporting::AggregationHandler aggregation) {
  auto session = introduceSession(options, context, std::move(aggregation));
  if (session == nullptr) return nullptr;
  const auto started = session->startConfig();
  if (!started) {
    tellFailure(context, started.failure, started.error);
    return nullptr;
  }
  if (!started.value->has_value()) {
    context.errors << "zunreportingctl: the daemon has no storebag for client type "
                   << options.info.clientType << ", so nothing can be sent\n";
    return nullptr;
  }
  if (options.verbose) {
    report << "active backends:";
    for (const std::string& name : **started.value) report << ' ' << name;
    report << '\n';
  }
  return session;
}

bool flushSession(ReportingSession& session, const Context& context, bool verbose) {
  const auto outcome = session.flushMessages();
  if (verbose)
    context.output << "flush: " << (outcome ? outcome.value->value_or("done") : outcome.error) << '\n';
  // Events sent at once leave nothing to flush, and that is no failure.
  if (outcome || outcome.error.find("Nothing to flush") == 0) return true;
  tellFailure(context, outcome.failure, "flush: " + outcome.error);
  return false;
}

bool finishSession(ReportingSession& session, const Context& context) {
  const auto finished = session.finishSessionGracefully();
  if (!finished) tellFailure(context, finished.failure, finished.error);
  return static_cast<bool>(finished);
}

ExitCode tellFailure(const Context& context, zunreporting::Failure failure, std::string_view text) {
  context.errors << "zunreportingctl: " << text << '\n';
  return failure == zunreporting::Failure::kConnection ? kExitNoSession : kExitFailed;
}

}  // namespace zun
