// zunreportingctl: what a client process can do, from the command line.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "FlushCommand.h"
#include "SendCommand.h"
#include "SharedCommand.h"
#include "UploadCommand.h"
#include "UploadLogsCommand.h"
#include "WatchCommand.h"
#include "zunreporting/ZunReporting.h"

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Talks to zunreportingd as a client process does.", "zunreportingctl");
  app.set_version_flag("--version", std::string("zunreportingctl ") + zunreporting::ZunReporting::version());
  app.require_subcommand(1);

  zun::Context context{.address = zunreporting::ReportingSession::kDefaultAddress,
                       .input = std::cin,
                       .output = std::cout,
                       .errors = std::cerr,
                       .showProgress = isatty(STDERR_FILENO) == 1};
  app.add_option("--address", context.address, "Address of the daemon's named service")
      ->capture_default_str();
  const zun::Subcommand subcommands[] = {zun::addSendCommand(app),   zun::addWatchCommand(app),
                                         zun::addUploadCommand(app), zun::addUploadLogsCommand(app),
                                         zun::addFlushCommand(app),  zun::addSharedCommand(app)};
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? zun::kExitOK : zun::kExitUsage;
  }
  for (const zun::Subcommand& subcommand : subcommands) {
    if (subcommand.app->parsed()) return subcommand.run(context);
  }
  return zun::kExitUsage;
}
