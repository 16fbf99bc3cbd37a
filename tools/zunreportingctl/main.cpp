// zunreportingctl: reports events from the command line.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "SendCommand.h"
#include "zunreporting/ZunReporting.h"

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Talks to zunreportingd as a client process does.", "zunreportingctl");
  app.set_version_flag("--version", std::string("zunreportingctl ") + zunreporting::ZunReporting::version());
  app.require_subcommand(1);

  zun::SendOptions options;
  app.add_option("--address", options.address, "Address of the daemon's named service")
      ->capture_default_str();
  zun::addSendCommand(app, options);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : zun::kExitUsage;
  }
  return zun::runSendCommand(options, std::cin, std::cout, std::cerr, isatty(STDERR_FILENO) == 1);
}
