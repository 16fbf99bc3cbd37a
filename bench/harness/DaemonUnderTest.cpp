#include "harness/DaemonUnderTest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/Crypto.h"
#include "support/TestCertificates.h"
#include "values/Base64.h"
#include "values/Check.h"
#include "values/PropertyList.h"

namespace zun::bench {

namespace {

using SteadyClock = std::chrono::steady_clock;

// A user gets half of them at most, and one program half of that.
constexpr const char* kMaximumConnections = "16400";
constexpr const char* kMaximumConnectionsOfAUser = "8200";
constexpr std::chrono::microseconds kPause{100};
constexpr size_t kLongText = 500;  // 10 MB of short ones are more values than a property list may have

void write(const std::string& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

/// Two that look at keys of the events and let them pass, then such as never fit.
Array filtersOf(size_t count) {
  Array filters;
  for (size_t i = 0; i < count; ++i) {
    Dictionary filter{{"key", fmt::format("private{}", i)}, {"action", "remove"}};
    if (i == 0) {
      filter = Dictionary{
          {"key", "radio"}, {"action", "whitelistValues"}, {"value", Array{"wifi", "cellular", "none"}}};
    } else if (i == 1) {
      filter = Dictionary{
          {"key", "action"}, {"action", "blacklistValues"}, {"value", Array{"secret", "password"}}};
    } else if (i % 5 == 2) {
      filter = Dictionary{{"key", fmt::format("account{}", i)}, {"action", "sha256"}, {"method", 3}};
    }
    filters.append(filter);
  }
  return filters;
}

Dictionary otherClient(size_t number) {
  return {{"client", fmt::format("other{}", number)},
          {"service", fmt::format("service{}", number)},
          {"locale_whitelist", Array{"DE", "FR"}},
          {"filters", Array{}},
          {"custom_clientId", std::string(kLongText, 'x')},
          {"sampling_threshold", 0.5},
          {"event_threshold", static_cast<int64_t>(number)},
          {"post_url", fmt::format("https://reports.other{}.example/post", number)}};
}

}  // namespace

DaemonUnderTest::DaemonUnderTest(const DaemonSetup& setup)
    : root_(folder_.path() + "/root"),
      socketPath_(root_ + "/run/zunreportingd/com.vantix.zunreportingd"),
      sink_(TestCertificates::shared().trusted().certificate, TestCertificates::shared().trusted().key) {
  prepare(setup);
  start(setup.program);
}

DaemonUnderTest::~DaemonUnderTest() {
  kill(process_, SIGTERM);
  waitpid(process_, nullptr, 0);
}

void DaemonUnderTest::start(const std::string& program) {
  int times[2];
  ZUN_CHECK(pipe2(times, O_CLOEXEC) == 0);
  const std::string& caFile = TestCertificates::shared().caFile();
  const std::string log = folder_.path() + "/daemon.log";
  process_ = fork();
  ZUN_CHECK(process_ >= 0);
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setenv("HOME", "/home/bench", 1);
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    dup2(open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    const auto now = SteadyClock::now();
    if (::write(times[1], &now, sizeof now) != sizeof now) _exit(127);
    execl(program.c_str(), program.c_str(), "--root", root_.c_str(), "--ca-file", caFile.c_str(),
          "--log-target", "stderr", "--stop-grace", "1", "--max-connections", kMaximumConnections,
          "--max-connections-per-user", kMaximumConnectionsOfAUser, nullptr);
    _exit(127);
  }
  SteadyClock::time_point begin;
  ZUN_CHECK(read(times[0], &begin, sizeof begin) == sizeof begin);
  while (!connects()) {
    ZUN_CHECK(waitpid(process_, nullptr, WNOHANG) == 0);
    std::this_thread::sleep_for(kPause);
  }
  startTime_ = SteadyClock::now() - begin;
  close(times[0]);
  close(times[1]);
}

bool DaemonUnderTest::connects() const {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ZUN_CHECK(socketPath_.size() < sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
  const bool connects = connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(socket);
  return connects;
}

void DaemonUnderTest::prepare(const DaemonSetup& setup) const {
  write(root_ + "/etc/zunreportingd/entitlements.d/bench.plist",
        serializeBinaryPropertyList(
            Array{Dictionary{{"user", static_cast<int64_t>(::getuid())},
                             {"entitlements", Dictionary{{"com.vantix.private.zunreportingd", true}}}}}));
  chmod((root_ + "/etc/zunreportingd/entitlements.d/bench.plist").c_str(), 0644);
  write(root_ + "/etc/zunreportingd/device.plist",
        serializeBinaryPropertyList(Dictionary{{"UniqueDeviceID", "BENCH-DEVICE"},
                                               {"ProductType", "Pallax12,3"},
                                               {"DeviceName", "Bench Pallax"},
                                               {"ProductVersion", "12.11"},
                                               {"BuildVersion", "21A329"}}));
  chmod((root_ + "/etc/zunreportingd/device.plist").c_str(), 0644);

  const std::string preferences = root_ + "/home/bench/Library/Preferences/";
  write(preferences + "com.vantix.zunreporting.plist",
        serializeBinaryPropertyList(Dictionary{{"CACHED_confero_max-age", 86400}}));
  if (setup.readableCopy == DaemonSetup::ReadableCopy::kWritten) {
    write(preferences + "com.vantix.diagnostics.plist",
          serializeBinaryPropertyList(Dictionary{{"DiagnosticSubmissionEnabled", true}}));
  }

  Dictionary section{{"httpPost", Dictionary{{"clients", clients(setup)}}}};
  if (setup.dashboardPort != 0) {
    section = Dictionary{
        {"dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", setup.dashboardPort}, {"reliable", 500}}}};
  }
  const std::string bag = serializeBinaryPropertyList(Dictionary{{"release", section}, {"version", "1.0"}});
  const auto key = RSAPrivateKey::generate(2048);
  ZUN_CHECK(key.has_value());
  write(root_ + "/usr/share/zunreportingd/publicKey.der", key->publicKeyDER());
  write(root_ + "/home/bench/Library/Caches/zunreportingd/storebags/confero",
        serializeBinaryPropertyList(
            Dictionary{{"signature", base64Encode(*key->signSHA1(bag))}, {"bag", base64Encode(bag)}}));
}

Array DaemonUnderTest::clients(const DaemonSetup& setup) const {
  constexpr size_t kSample = 100;
  Array sample;
  for (size_t i = 0; i < kSample; ++i) sample.append(otherClient(i));
  const size_t others = setup.storebagBytes * kSample / serializeBinaryPropertyList(sample).size();
  Array clients;
  for (size_t i = 0; i < others; ++i) clients.append(otherClient(i));

  Dictionary own{{"client", "editor,bench"},
                 {"service", "throughput"},
                 {"enabledSince", "1.0"},
                 {"locale_whitelist", Array{"FR", "DE"}},
                 {"device_whitelist", Array{"pallax"}},
                 {"device_blacklist", Array{"Brindle"}},
                 {"event_whitelist", Array{0, 1, 2, 3, 4, 5}},
                 {"event_blacklist", Array{90, 91, 92}},
                 {"filters", filtersOf(setup.filters)},
                 {"sampling_threshold", 0.0},
                 {"per_country_sampling_thresholds",
                  Array{Dictionary{{"country", Array{"FR", "DE"}}, {"threshold", 1.0}}}},
                 {"event_threshold", setup.recordsAPost - 1},
                 {"post_url", fmt::format("https://localhost:{}/post", sink_.port())}};
  if (setup.readableCopy == DaemonSetup::ReadableCopy::kNone) own.set("override_dnu", 1);
  clients.append(own);
  return clients;
}

}  // namespace zun::bench
