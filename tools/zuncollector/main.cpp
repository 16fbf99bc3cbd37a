// zuncollector: a local server to develop against.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <iostream>
#include <map>
#include <string>
#include <thread>

#include "Collector.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitCannotServe = 1;
constexpr double kLargestUploadLimit = 1e15;

void addDashboardOptions(CLI::App& app, zun::CollectorOptions& options) {
  zun::AcknowledgementOptions& acknowledgements = options.acknowledgements;
  constexpr const char* kGroup = "Dashboard";
  auto* const port = app.add_option("--dashboard-port", options.dashboardPort,
                                    "Receive datagrams of dashboard backends at this port; 0 takes any free "
                                    "one. Those of senders in reliable mode are acknowledged");
  port->group(kGroup);
  app.add_option("--dashboard-port-file", options.dashboardPortFile,
                 "File that the dashboard's port is written to once it is bound")
      ->needs(port)
      ->group(kGroup);
  app.add_flag("--dashboard-silent", acknowledgements.silent, "Acknowledge nothing")->group(kGroup);
  app.add_option("--ack-drop", acknowledgements.dropFirst, "Lose the first N acknowledgements")
      ->group(kGroup);
  app.add_option("--ack-drop-every", acknowledgements.dropEvery, "Lose every Nth acknowledgement")
      ->group(kGroup);
  app.add_option("--ack-loss", acknowledgements.loss, "Lose this share of the acknowledgements, by chance")
      ->check(CLI::Range(0.0, 1.0))
      ->group(kGroup);
  app.add_option("--seed", acknowledgements.seed, "What that chance begins with: the same loses the same")
      ->capture_default_str()
      ->group(kGroup);
  app.add_option("--ack-corrupt", acknowledgements.corruptFirst,
                 "Invert the event number in the first N acknowledgements that are not lost")
      ->group(kGroup);
  app.add_flag("--ack-duplicate", acknowledgements.duplicate, "Send each acknowledgement twice")
      ->group(kGroup);
  app.add_option_function<uint32_t>(
         "--ack-delay",
         [&acknowledgements](uint32_t delay) { acknowledgements.delay = std::chrono::milliseconds(delay); },
         "Wait so many milliseconds before each acknowledgement")
      ->check(CLI::Range(0, 3'600'000))
      ->group(kGroup);
  app.add_option("--ack-bytes", acknowledgements.bytes,
                 "Return only so many bytes of a datagram; 62 suffice, 0 returns all")
      ->group(kGroup);
}

void addUploadOptions(CLI::App& app, zun::CollectorOptions& options) {
  using zun::UploadAnswer;
  constexpr const char* kGroup = "Uploads";
  std::map<std::string, UploadAnswer> answers;
  for (const UploadAnswer answer : {UploadAnswer::kSuccess, UploadAnswer::kFailure, UploadAnswer::kEmpty,
                                    UploadAnswer::kHang, UploadAnswer::kServerError, UploadAnswer::kBroken}) {
    answers.emplace(nameOf(answer), answer);
  }
  app.add_option("--uploads", options.uploads, "Folder to keep uploaded files and log data in")
      ->check(CLI::ExistingDirectory)
      ->group(kGroup);
  app.add_option("--upload-answer", options.uploadAnswer, "What uploads are answered (default: success)")
      ->type_name("ANSWER")
      ->transform(CLI::Transformer(answers).description(""))
      ->transform(CLI::IsMember(answers))  // looked at first: names alone will do
      ->group(kGroup);
  app.add_option("--upload-limit", options.uploadLimit, "Bytes of an uploaded file, at most")
      ->capture_default_str()
      ->check(CLI::Range(1.0, kLargestUploadLimit).description(""))
      ->group(kGroup);
}

}  // namespace

#if defined(__SANITIZE_THREAD__)
// The HTTP library comes without instrumentation: how its threads wait for each other's
// first use of a table cannot be seen, only that they read it.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib.so\n";
}
#endif

int main(int argc, char** argv) {
  zun::CollectorOptions options;
  CLI::App app(
      "Serves signed storebags and receives everything that leaves a daemon: posts, uploads and log\n"
      "data over HTTPS, and datagrams of dashboard backends. To develop and test against.\n"
      "Ends on SIGINT or SIGTERM with a summary on standard output.",
      "zuncollector");
  app.set_version_flag("--version", "zuncollector " ZUN_VERSION);
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
                 "File that everything received is appended to, one JSON object a line");
  app.add_option("--port-file", options.portFile, "File that the port is written to once it is bound");
  app.add_option("--max-age", options.maxAge, "Seconds for which a storebag may be cached")
      ->capture_default_str();
  app.add_flag("--verbose", options.verbose, "Tell every request on standard error");
  addDashboardOptions(app, options);
  addUploadOptions(app, options);
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
  std::signal(SIGXFSZ, SIG_IGN);  // a file at its limit is a write that fails

  zun::Collector collector(options);
  if (const std::string error = collector.bind(); !error.empty()) {
    std::cerr << "zuncollector: " << error << '\n';
    return kExitCannotServe;
  }
  std::cerr << fmt::format("zuncollector: listening on https://{}:{}\n", options.host, collector.port());
  if (const auto port = collector.dashboardPort()) {
    std::cerr << fmt::format("zuncollector: receiving datagrams at {}:{}\n", options.host, *port);
  }
  std::thread serving([&collector] { collector.run(); });
  int signal = 0;
  sigwait(&ending, &signal);
  collector.stop();
  serving.join();
  std::cout << collector.summary();
  return 0;
}
