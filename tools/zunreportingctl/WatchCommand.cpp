#include "WatchCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>

#include "EndingSignals.h"
#include "JSONProperties.h"
#include "Session.h"
#include "values/JSONWriter.h"

namespace zun {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using zunreporting::AggregatedMessage;
using zunreporting::ReportingSession;
using Clock = std::chrono::steady_clock;

constexpr double kShortestTimeout = 0.001;  // seconds
constexpr double kLongestTimeout = 1e6;

struct WatchOptions {
  SessionOptions session;
  uint32_t count = 0;  // 0: no end
  double timeout = 0;  // seconds; 0: none
};

/// Not a range: what is no number at all would be within it.
std::string checkTimeout(const std::string& text) {
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, seconds);
  if (error == std::errc() && rest == end && seconds >= kShortestTimeout && seconds <= kLongestTimeout)
    return {};
  return fmt::format("takes {} to {:.0f} seconds, not {}", kShortestTimeout, kLongestTimeout, text);
}

std::string lineOf(const AggregatedMessage& message) {
  if (message.isEndOfAggregation()) return R"({"endOfAggregation":true})";
  Dictionary line{{"sessionInfo", jsonValueOf(*message.sessionInfo)},
                  {"timestamp", message.timestamp},
                  {"category", message.category},
                  {"type", message.type}};
  if (message.payload) line.set("payload", jsonValueOf(*message.payload));
  return writeJSON(line, JSONFormat::kCompact);
}

/// One run of `watch`, from the first message to the last.
class Watching final {
 public:
  Watching(const WatchOptions& options, const Context& context) : options_(options), context_(context) {}

  int run() {
    const auto session = openSession(options_.session, context_, context_.errors,
                                     [this](const AggregatedMessage& message) { take(message); });
    if (session == nullptr) return kExitNoSession;
    if (!watch(*session)) {
      context_.errors << "zunreportingctl: the connection to the daemon is gone\n";
      return kExitNoSession;
    }
    // The daemon may have ended the session together with the aggregation.
    if (!hasAggregationEnded_ && !finishSession(*session, context_)) return kExitNoSession;
    if (!context_.output) {
      context_.errors << "zunreportingctl: cannot write to standard output\n";
      return kExitFailed;
    }
    if (options_.count == 0 || printed_ >= options_.count) return kExitOK;
    context_.errors << "zunreportingctl: " << printed_ << " of " << options_.count << " messages came\n";
    return kExitFailed;
  }

 private:
  /// Prints until there is a reason to end; false when that is a lost connection.
  bool watch(ReportingSession& session) {
    const EndingSignals signals;
    context_.errors << "zunreportingctl: watching" << std::endl;
    const auto start = Clock::now();
    while (!hasEnded_) {
      const auto processed = session.processMessages(0ms);
      if (hasEnded_) return true;
      if (!processed) return false;
      // Messages without a break must not keep a signal from being seen.
      const bool isBusy = *processed.value > 0;
      const int left = millisecondsLeft(start);
      if (left == 0) return true;
      if (signals.wait(isBusy ? -1 : session.descriptor(), isBusy ? 0 : left) ==
          EndingSignals::Event::kSignal)
        return true;
    }
    return true;
  }

  /// -1 without a limit.
  [[nodiscard]] int millisecondsLeft(Clock::time_point start) const {
    if (options_.timeout == 0) return -1;
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    return static_cast<int>(std::ceil(std::max(options_.timeout - elapsed, 0.0) * 1000));
  }

  void take(const AggregatedMessage& message) {
    if (hasEnded_) return;
    context_.output << lineOf(message) << std::endl;
    hasAggregationEnded_ = message.isEndOfAggregation();
    if (!hasAggregationEnded_) ++printed_;
    hasEnded_ = hasAggregationEnded_ || printed_ == options_.count || !context_.output;
  }

  const WatchOptions& options_;
  const Context& context_;
  uint32_t printed_ = 0;
  bool hasEnded_ = false;
  bool hasAggregationEnded_ = false;
};

}  // namespace

Subcommand addWatchCommand(CLI::App& app) {
  const auto options = std::make_shared<WatchOptions>();
  options->session.defaultClientName = "zunreportingctl";
  CLI::App* const watch = app.add_subcommand(
      "watch", "Prints the messages of its session and those below it, one JSON object a line");
  watch->footer(
      "Opens an aggregating session. A line is\n"
      "  {\"sessionInfo\":{...},\"timestamp\":1.5,\"category\":1,\"type\":2,\"payload\":{...}}\n"
      "payload is missing where the message had none; data is Base64, a date its seconds since\n"
      "1970. {\"endOfAggregation\":true} is the last line when the daemon ends the aggregation.\n"
      "Ends then, on SIGINT or SIGTERM, after --count messages or after --timeout seconds.\n"
      "Exit codes: 0 ended, 1 fewer than --count messages came, 2 wrong usage, 3 no session, or\n"
      "the daemon went away.");
  watch->add_option("--count", options->count, "Messages after which to end")
      ->check(CLI::Range(uint32_t{1}, std::numeric_limits<uint32_t>::max()).description(""));
  watch->add_option("--timeout", options->timeout, "Seconds after which to end")->check(checkTimeout);
  addSessionOptions(*watch, options->session);
  return {watch, [options](const Context& context) { return Watching(*options, context).run(); }};
}

}  // namespace zun
