#include "DaemonUnderTest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/Crypto.h"
#include "values/Base64.h"
#include "values/Check.h"
#include "values/PropertyList.h"
#include "values/Value.h"

namespace zun::bench {

namespace {

void write(const std::string& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

std::chrono::microseconds cpuTimeOf(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/stat", process));
  std::string text{std::istreambuf_iterator<char>(file), {}};
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  uint64_t user = 0;
  uint64_t system = 0;
  fields >> user >> system;
  return std::chrono::microseconds((user + system) * 1'000'000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
}

DaemonUnderTest::DaemonUnderTest(const std::string& program, const std::string& folder,
                                 const std::string& postURL, const std::string& caFile, int eventThreshold)
    : root_(folder + "/root"), socketPath_(root_ + "/run/zunreportingd/com.vantix.zunreportingd") {
  prepare(postURL, eventThreshold);
  process_ = fork();
  ZUN_CHECK(process_ >= 0);
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setenv("HOME", "/home/bench", 1);
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    const int log = open((folder + "/daemon.log").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    dup2(log, STDERR_FILENO);
    execl(program.c_str(), program.c_str(), "--root", root_.c_str(), "--ca-file", caFile.c_str(),
          "--log-target", "stderr", "--stop-grace", "1", nullptr);
    _exit(127);
  }
  while (!std::filesystem::exists(socketPath_)) {
    ZUN_CHECK(waitpid(process_, nullptr, WNOHANG) == 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

DaemonUnderTest::~DaemonUnderTest() {
  kill(process_, SIGTERM);
  waitpid(process_, nullptr, 0);
}

void DaemonUnderTest::prepare(const std::string& postURL, int eventThreshold) const {
  const auto key = RSAPrivateKey::generate(2048);
  ZUN_CHECK(key.has_value());
  write(root_ + "/usr/share/zunreportingd/publicKey.der", key->publicKeyDER());
  write(root_ + "/etc/zunreportingd/entitlements.d/bench.plist",
        serializeBinaryPropertyList(
            Array{Dictionary{{"user", static_cast<int64_t>(::getuid())},
                             {"entitlements", Dictionary{{"com.vantix.private.zunreportingd", true}}}}}));
  chmod((root_ + "/etc/zunreportingd/entitlements.d/bench.plist").c_str(), 0644);

  const Dictionary client{{"locale_whitelist", Array{"DE"}},   {"filters", Array{}},
                          {"sampling_threshold", 1.0},         {"override_dnu", 1},
                          {"event_threshold", eventThreshold}, {"post_url", postURL}};
  const Dictionary section{{"httpPost", Dictionary{{"clients", Array{client}}}}};
  const std::string bag = serializeBinaryPropertyList(Dictionary{{"release", section}, {"version", "1.0"}});
  write(root_ + "/home/bench/Library/Caches/zunreportingd/storebags/confero",
        serializeBinaryPropertyList(
            Dictionary{{"signature", base64Encode(*key->signSHA1(bag))}, {"bag", base64Encode(bag)}}));
  write(root_ + "/home/bench/Library/Preferences/com.vantix.zunreporting.plist",
        serializeBinaryPropertyList(Dictionary{{"CACHED_confero_max-age", 86400}}));
}

uint64_t DaemonUnderTest::residentKilobytes() const {
  std::ifstream file(fmt::format("/proc/{}/status", process_));
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("VmRSS:")) return std::stoull(line.substr(6));
  }
  return 0;
}

}  // namespace zun::bench
