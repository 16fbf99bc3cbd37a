// zuncollector: a local server to develop against.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <thread>

#include "Collector.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitCannotServe = 1;

void printSummary(const zun::Collector& collector) {
  const zun::CollectedTotals totals = collector.totals();
  std::cout << fmt::format(
      "posts {}\nrefused {}\nevents {}\nbytes {}\nwire-bytes {}\nstorebags {}\nnot-modified {}\n",
      totals.posts, totals.refusedPosts, totals.events, totals.bodyBytes, totals.wireBytes,
      collector.storebagsServed(), collector.storebagsNotModified());
}

}  // namespace

int main(int argc, char** argv) {
  zun::CollectorOptions options;
  CLI::App app(
      "Serves signed storebags and takes event posts over HTTPS, to develop and test against.\n"
      "Ends on SIGINT or SIGTERM with a summary on standard output.",
      "zuncollector");
  app.add_option("--host", options.host, "Address to listen on")->capture_default_str();
  app.add_option("--port", options.port, "Port to listen on; 0 takes any free one")->capture_default_str();
  app.add_option("--cert", options.certificate, "Server certificate, PEM")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--key", options.key, "Its private key, PEM")->required()->check(CLI::ExistingFile);
  app.add_option("--storebags", options.storebags, "Folder of signed storebags, one file a name")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("--output", options.output,
                 "File that received events are appended to, one JSON object a line");
  app.add_option("--port-file", options.portFile, "File that the port is written to once it is bound");
  app.add_option("--max-age", options.maxAge, "Seconds for which a storebag may be cached")
      ->capture_default_str();
  app.add_flag("--verbose", options.verbose, "Tell every request on standard error");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }

  // Blocked before any thread starts, so that only the waiting one below takes them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  zun::Collector collector(options);
  if (const std::string error = collector.bind(); !error.empty()) {
    std::cerr << "zuncollector: " << error << '\n';
    return kExitCannotServe;
  }
  std::cerr << fmt::format("zuncollector: listening on https://{}:{}\n", options.host, collector.port());
  std::thread serving([&collector] { collector.run(); });
  int signal = 0;
  sigwait(&ending, &signal);
  collector.stop();
  serving.join();
  printSummary(collector);
  return 0;
}
