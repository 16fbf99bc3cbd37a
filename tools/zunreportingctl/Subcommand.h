#pragma once

#include <functional>
#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace zun {

/// What the tool ends with. Stable: scripts branch on it.
enum ExitCode : int {
  kExitOK = 0,
  kExitFailed = 1,  // some of what was asked for did not happen
  kExitUsage = 2,
  kExitNoSession = 3,  // no daemon, not entitled, no storebag, or the daemon went away
};

/// What a subcommand runs with.
struct Context {
  std::string address;
  std::istream& input;
  std::ostream& output;
  std::ostream& errors;
  bool showProgress = false;  // `errors` is a terminal
};

/// A subcommand of the command line, and what it does; `run` gives the exit code.
struct Subcommand {
  CLI::App* app = nullptr;
  std::function<int(const Context&)> run;
};

}  // namespace zun
