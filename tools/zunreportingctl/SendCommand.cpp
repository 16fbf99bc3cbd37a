#include "SendCommand.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "EventLine.h"
#include "LineReader.h"
#include "Session.h"

namespace zun {

namespace {

using zunreporting::ReportingSession;

constexpr uint64_t kProgressEvery = 100;

struct SendOptions {
  SessionOptions session;
  bool noFlush = false;
};

struct Counts {
  uint64_t sent = 0;
  uint64_t failed = 0;
};

/// One run of `send`, from the first line to the last.
class Sending final {
 public:
  Sending(const Context& context, ReportingSession& session, bool verbose)
      : context_(context), session_(session), verbose_(verbose), lines_(context.input) {}

  Counts sendAll() {
    while (lines_.next()) {
      if (!sendLine()) ++counts_.failed;
      if (context_.showProgress && lines_.number() % kProgressEvery == 0) showProgress();
    }
    if (context_.showProgress) {
      showProgress();
      context_.errors << '\n';
    }
    return counts_;
  }

 private:
  bool sendLine() {
    if (lines_.isTooLong()) return fail("longer than " + std::to_string(LineReader::kLongestLine) + " bytes");
    const auto event = eventFromLine(lines_.line());
    if (!event) return fail(event.error());
    const auto outcome = session_.sendMessage(*event);
    if (!outcome) return fail(outcome.error);
    ++counts_.sent;
    if (verbose_) context_.output << lines_.number() << ": " << outcome.value->value_or("(no reply)") << '\n';
    return true;
  }

  bool fail(const std::string& why) {
    if (context_.showProgress) context_.errors << '\n';
    context_.errors << "zunreportingctl: line " << lines_.number() << ": " << why << '\n';
    return false;
  }

  void showProgress() {
    context_.errors << "\rsent " << counts_.sent << ", failed " << counts_.failed << std::flush;
  }

  const Context& context_;
  ReportingSession& session_;
  const bool verbose_;
  LineReader lines_;
  Counts counts_;
};

int run(const SendOptions& options, const Context& context) {
  const auto session = openSession(options.session, context, context.output);
  if (session == nullptr) return kExitNoSession;

  const Counts counts = Sending(context, *session, options.session.verbose).sendAll();
  bool complete = counts.failed == 0;
  if (!options.noFlush && !flushSession(*session, context, options.session.verbose)) complete = false;
  if (!finishSession(*session, context)) complete = false;
  context.output << "sent " << counts.sent << " events, " << counts.failed << " failed\n";
  return complete ? kExitOK : kExitFailed;
}

}  // namespace

Subcommand addSendCommand(CLI::App& app) {
  const auto options = std::make_shared<SendOptions>();
  CLI::App* const send =
      app.add_subcommand("send", "Reports events read from standard input, one JSON object a line");
  send->footer(
      "A line is\n"
      "  {\"category\": 1, \"type\": 2, \"payload\": {\"key\": \"value\"}, \"flag\": 0}\n"
      "Flag bits: 1 post at once, 2 enable a sampled-out backend.\n"
      "Exit codes: 0 all sent, 1 some lines failed, 2 wrong usage, 3 no session.");
  addSessionOptions(*send, options->session);
  send->add_flag("--no-flush", options->noFlush, "Do not wait for batched events to be posted");
  return {send, [options](const Context& context) { return run(*options, context); }};
}

}  // namespace zun
