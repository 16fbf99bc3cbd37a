#include "daemon/DaemonOptions.h"

#include <CLI/CLI.hpp>
#include <map>

namespace zun {

namespace {

constexpr const char* kUnixPath = "unix:path=";
constexpr uint32_t kLargestInterval = 7 * 24 * 3600;  // seconds

std::string checkListenAddress(const std::string& address) {
  if (address.rfind(kUnixPath, 0) != 0) return "must be of the form unix:path=PATH";
  if (address.size() == std::string_view(kUnixPath).size()) return "names no path";
  if (address.find_first_of(",;") != std::string::npos) return "must be one address with a path alone";
  return {};
}

}  // namespace

std::variant<DaemonOptions, int> parseDaemonOptions(int argc, const char* const* argv,
                                                    const std::string& version) {
  DaemonOptions options;
  std::string listen;
  uint32_t idleExit = 0;
  uint32_t stopGrace = static_cast<uint32_t>(options.stopGrace.count());
  const std::map<std::string, LogLevel> levels{
      {"debug", LogLevel::kDebug}, {"default", LogLevel::kDefault}, {"error", LogLevel::kError}};
  const std::map<std::string, LogTarget> targets{
      {"auto", LogTarget::kAuto}, {"journal", LogTarget::kJournal}, {"stderr", LogTarget::kStderr}};

  CLI::App app("Collects event reports from client processes and sends them on as signed configuration says.",
               "zunreportingd");
  app.set_version_flag("--version", "zunreportingd " + version);
  app.add_option("--listen", listen,
                 std::string("Address of the named service, unix:path=PATH (default: unix:path=") +
                     DaemonOptions::kServiceSocket + " under the root)")
      ->check(checkListenAddress);
  app.add_option("--root", options.root, "Folder that stands before every absolute path of the daemon's own")
      ->check(CLI::ExistingDirectory);
  app.add_option("--resources", options.resources,
                 std::string("Folder of publicKey.der and info.plist (default: ") +
                     DaemonOptions::kResources + " under the root)");
  app.add_option("--ca-file", options.caFile,
                 "Certificate authorities to trust, PEM (default: the system's store)")
      ->check(CLI::ExistingFile);
  app.add_option("--log-level", options.logLevel, "Least important lines to write (default: default)")
      ->type_name("LEVEL")
      ->transform(CLI::Transformer(levels).description(""))
      ->transform(CLI::IsMember(&levels));  // looked at first: names alone will do
  app.add_option("--log-target", options.logTarget, "Where log lines go (default: auto)")
      ->type_name("TARGET")
      ->transform(CLI::Transformer(targets).description(""))
      ->transform(CLI::IsMember(&targets));
  const auto* const idleOption =
      app.add_option("--idle-exit", idleExit,
                     "Exit after so many SECONDS without clients and work (default: never)")
          ->check(CLI::Range(uint32_t{0}, kLargestInterval));
  app.add_option("--stop-grace", stopGrace,
                 "Seconds that transfers and dashboards may take to finish on SIGTERM (default: 20)")
      ->check(CLI::Range(uint32_t{0}, kLargestInterval));
  app.add_option("--max-connections", options.maxConnections, "Connections in all (default: 4096)")
      ->check(CLI::Range(1U, 1'000'000U));
  app.add_option("--max-connections-per-user", options.maxConnectionsPerUser,
                 "Connections of one user id (default: 256)")
      ->check(CLI::Range(1U, 1'000'000U));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? 0 : 2;
  }
  if (!listen.empty()) options.listenPath = listen.substr(std::string_view(kUnixPath).size());
  if (idleOption->count() > 0) options.idleExit = std::chrono::seconds(idleExit);
  options.stopGrace = std::chrono::seconds(stopGrace);
  return options;
}

}  // namespace zun
