#include "FlushCommand.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "Session.h"

namespace zun {

namespace {

int run(const SessionOptions& options, const Context& context) {
  const auto session = openSession(options, context, context.output);
  if (session == nullptr) return kExitNoSession;
  bool complete = flushSession(*session, context, /*verbose=*/true);
  if (!finishSession(*session, context)) complete = false;
  return complete ? kExitOK : kExitFailed;
}

}  // namespace

Subcommand addFlushCommand(CLI::App& app) {
  const auto options = std::make_shared<SessionOptions>();
  options->defaultClientName = "zunreportingctl";
  CLI::App* const flush =
      app.add_subcommand("flush", "Opens a session and has its backends post what they hold");
  flush->footer(
      "That is, with --batch, the session's start. Waits until the server has answered, and prints the "
      "result.\n"
      "Exit codes: 0 posted, or nothing to post, 1 a backend could not, 2 wrong usage, 3 no session.");
  addSessionOptions(*flush, *options);
  return {flush, [options](const Context& context) { return run(*options, context); }};
}

}  // namespace zun
