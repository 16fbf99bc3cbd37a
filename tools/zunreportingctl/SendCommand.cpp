#include "SendCommand.h"

#include <CLI/CLI.hpp>
#include <istream>
#include <ostream>

#include "EventLine.h"

namespace zun {

namespace {

using zunreporting::ReportingSession;

/// A line longer than the daemon takes as one message is not read into memory whole.
constexpr size_t kLongestLine = size_t{1} << 20;
constexpr uint64_t kProgressEvery = 100;

struct Counts {
  uint64_t lines = 0;
  uint64_t sent = 0;
  uint64_t failed = 0;
};

/// One run of `send`, from the first line to the last.
class Sending final {
 public:
  Sending(const SendOptions& options, ReportingSession& session, std::ostream& output, std::ostream& errors,
          bool showProgress)
      : options_(options), session_(session), output_(output), errors_(errors), showProgress_(showProgress) {}

  Counts readFrom(std::istream& input) {
    std::string line;
    while (readLine(input, line)) {
      ++counts_.lines;
      if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
      if (!sendLine(line)) ++counts_.failed;
      if (showProgress_ && counts_.lines % kProgressEvery == 0) showProgress();
    }
    if (showProgress_) {
      showProgress();
      errors_ << '\n';
    }
    return counts_;
  }

  /// Waits until what was batched has been posted.
  bool flush() {
    const auto outcome = session_.flushMessages();
    if (options_.verbose)
      output_ << "flush: " << (outcome ? outcome.value->value_or("done") : outcome.error) << '\n';
    // Events sent at once leave nothing to flush, and that is no failure.
    if (outcome || outcome.error.find("Nothing to flush") == 0) return true;
    errors_ << "zunreportingctl: flush: " << outcome.error << '\n';
    return false;
  }

 private:
  /// False at the end. A line that is too long is cut there, so that it fails as JSON.
  static bool readLine(std::istream& input, std::string& line) {
    line.clear();
    for (int character = input.get(); character != std::istream::traits_type::eof();
         character = input.get()) {
      if (character == '\n') return true;
      if (line.size() <= kLongestLine) line += static_cast<char>(character);
    }
    return !line.empty();
  }

  bool sendLine(const std::string& line) {
    if (line.size() > kLongestLine) return fail("longer than " + std::to_string(kLongestLine) + " bytes");
    const auto event = eventFromLine(line);
    if (!event) return fail(event.error());
    const auto outcome = session_.sendMessage(*event);
    if (!outcome) return fail(outcome.error);
    ++counts_.sent;
    if (options_.verbose) output_ << counts_.lines << ": " << outcome.value->value_or("(no reply)") << '\n';
    return true;
  }

  bool fail(const std::string& why) {
    if (showProgress_) errors_ << '\n';
    errors_ << "zunreportingctl: line " << counts_.lines << ": " << why << '\n';
    return false;
  }

  void showProgress() { errors_ << "\rsent " << counts_.sent << ", failed " << counts_.failed << std::flush; }

  const SendOptions& options_;
  ReportingSession& session_;
  std::ostream& output_;
  std::ostream& errors_;
  const bool showProgress_;
  Counts counts_;
};

/// The session, configured; null after an error on `errors`.
std::unique_ptr<ReportingSession> openSession(const SendOptions& options, std::ostream& output,
                                              std::ostream& errors) {
  auto connected = ReportingSession::connect(options.address);
  if (!connected) {
    errors << "zunreportingctl: " << connected.error << '\n';
    return nullptr;
  }
  auto session = std::move(*connected.value);

  zunreporting::SessionInfo info = options.session;
  std::optional<zunreporting::UserInfo> user;
  if (options.clientName || options.serviceName) {
    user = zunreporting::UserInfo{options.clientName.value_or(""), options.serviceName.value_or("")};
  }
  info.requireUserInfo = !options.noUserInfoRequired;
  if (const auto set = session->setSessionInfo(info, user); !set) {
    errors << "zunreportingctl: the daemon does not take the session (is this program entitled to report?): "
           << set.error << '\n';
    return nullptr;
  }
  const auto started = session->startConfig();
  if (!started) {
    errors << "zunreportingctl: " << started.error << '\n';
    return nullptr;
  }
  if (!started.value->has_value()) {
    errors << "zunreportingctl: the daemon has no storebag for client type " << info.clientType
           << ", so nothing can be sent\n";
    return nullptr;
  }
  if (options.verbose) {
    output << "active backends:";
    for (const std::string& name : **started.value) output << ' ' << name;
    output << '\n';
  }
  return session;
}

}  // namespace

void addSendCommand(CLI::App& app, SendOptions& options) {
  CLI::App* const send =
      app.add_subcommand("send",
                         "Reports events read from standard input, one JSON object a line:\n"
                         "  {\"category\": 1, \"type\": 2, \"payload\": {\"key\": \"value\"}, \"flag\": 0}\n"
                         "Flag bits: 1 post at once, 2 enable a sampled-out backend.\n"
                         "Exit codes: 0 all sent, 1 some lines failed, 2 wrong usage, 3 no session.");
  auto& session = options.session;
  send->add_option("--client-type", session.clientType, "Client type, which selects the storebag")
      ->capture_default_str();
  send->add_option("--session-id", session.sessionID, "The session's number")->capture_default_str();
  send->add_option("--client-version", session.clientVersion, "The client's version")->capture_default_str();
  send->add_option("--client-name", options.clientName, "User information: client name");
  send->add_option("--service-name", options.serviceName, "User information: service name");
  send->add_flag("--no-user-info-required", options.noUserInfoRequired,
                 "The session's events need no user information");
  send->add_flag("--batch", session.batchEvents, "Collect events in batches");
  send->add_option("--hierarchy-token", session.hierarchyToken, "Token of the session's hierarchy");
  send->add_option("--hierarchy-level", session.hierarchyLevel, "Level in the hierarchy, 0 for the top");
  send->add_flag("--no-flush", options.noFlush, "Do not wait for batched events to be posted");
  send->add_flag("--verbose", options.verbose, "Print every reply");
}

int runSendCommand(const SendOptions& options, std::istream& input, std::ostream& output,
                   std::ostream& errors, bool showProgress) {
  const auto session = openSession(options, output, errors);
  if (session == nullptr) return kExitNoSession;

  Sending sending(options, *session, output, errors, showProgress);
  const Counts counts = sending.readFrom(input);
  bool complete = counts.failed == 0;
  if (!options.noFlush && !sending.flush()) complete = false;
  if (const auto finished = session->finishSessionGracefully(); !finished) {
    errors << "zunreportingctl: " << finished.error << '\n';
    complete = false;
  }
  output << "sent " << counts.sent << " events, " << counts.failed << " failed\n";
  return complete ? kExitOK : kExitEventsFailed;
}

}  // namespace zun
