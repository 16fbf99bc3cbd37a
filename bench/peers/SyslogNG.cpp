#include "SyslogNG.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

#include "support/TestCertificates.h"
#include "values/Check.h"

namespace zun::bench {

namespace {

constexpr const char* kProgram = "/usr/sbin/syslog-ng";

// As our records have them, with values of the same kind.
constexpr std::array<std::pair<const char*, const char*>, 17> kContext{{
    {"_startTS", "1700000040"},
    {"_sender", "Pallax-ZUN"},
    {"_clientVersion", "1"},
    {"_sessionID", "1"},
    {"_eventNumber", "4711"},
    {"_method", "3"},
    {"_status", "17"},
    {"_clientTS", "1700000041.25"},
    {"eventTime", "1700000041.25"},
    {"_productFamily", "Bench Pallax"},
    {"_productModel", "Pallax12,3"},
    {"_osVersion", "12.11"},
    {"_build", "21A329"},
    {"_internal", "0"},
    {"_reportVers", "1.0.0"},
    {"_timezoneOffset", "3600"},
    {"userInfoClientName", "bench"},
}};

}  // namespace

bool SyslogNG::isInstalled() {
  return access(kProgram, X_OK) == 0;
}

SyslogNG::SyslogNG(int recordsAPost, Keys keys)
    : sink_(TestCertificates::shared().trusted().certificate, TestCertificates::shared().trusted().key) {
  std::ofstream(folder_.path("syslog-ng.conf")) << configuration(recordsAPost, keys);
  start();
}

SyslogNG::~SyslogNG() {
  close(socket_);
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

std::string SyslogNG::configuration(int recordsAPost, Keys keys) const {
  std::string pairs;
  std::string text;
  for (const auto& [name, value] : kContext) {
    pairs += fmt::format(" --pair {}=\\\"{}\\\"", name, value);
    text += fmt::format("\\\"{}\\\":\\\"{}\\\",", name, value);
  }
  const bool merges = keys == Keys::kMerged;
  // Without the opening brace, which the constant keys bring with them.
  const std::string body = merges ? "$(format-json --key e.* --rekey e.* --shift-levels 1" + pairs + ")"
                                  : "{" + text + "\\\"event\\\":$MSG}";
  return fmt::format(
      R"(@version: 3.38
options {{ stats-freq(0); keep-hostname(yes); use-dns(no); dns-cache(no); log-fifo-size(50000); }};
source events {{ unix-stream("{}" flags(no-parse) max-connections(2) log-iw-size(20000) log-fetch-limit(1000)); }};
{}
destination sink {{
  http(url("https://localhost:{}/post") method("POST") tls(ca-file("{}")) workers(1)
       headers("Content-Type: application/json", "Accept: application/json")
       batch-lines({}) batch-timeout(200) delimiter("\n") body-suffix("\n") body("{}"));
}};
log {{ source(events); {} destination(sink); flags(flow-control); }};
)",
      socketPath(), merges ? "parser fields { json-parser(prefix(\"e.\")); };" : "", sink_.port(),
      TestCertificates::shared().caFile(), recordsAPost, body, merges ? "parser(fields);" : "");
}

void SyslogNG::start() {
  const std::string configuration = folder_.path("syslog-ng.conf");
  const std::string persistent = folder_.path("persist");
  const std::string control = folder_.path("control");
  const std::string pidFile = folder_.path("pid");
  const std::string log = folder_.path("log");
  process_ = fork();
  ZUN_CHECK(process_ >= 0);
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    execl(kProgram, kProgram, "-F", "--process-mode=foreground", "--no-caps", "-f", configuration.c_str(),
          "-R", persistent.c_str(), "-c", control.c_str(), "-p", pidFile.c_str(), nullptr);
    _exit(127);
  }
  socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ZUN_CHECK(socketPath().size() < sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath().data(), socketPath().size());
  while (connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ZUN_CHECK(waitpid(process_, nullptr, WNOHANG) == 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

double SyslogNG::bytesAnEvent() const {
  size_t bytes = 0;
  std::ptrdiff_t lines = 0;
  for (const std::string& body : sink_.bodies()) {
    bytes += body.size();
    lines += std::count(body.begin(), body.end(), '\n');
  }
  return static_cast<double>(bytes) / static_cast<double>(std::max<std::ptrdiff_t>(lines, 1));
}

void SyslogNG::write(const std::string& lines) const {
  for (std::string_view rest = lines; !rest.empty();) {
    const ssize_t written = ::send(socket_, rest.data(), rest.size(), MSG_NOSIGNAL);
    ZUN_CHECK(written > 0);
    rest.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace zun::bench
