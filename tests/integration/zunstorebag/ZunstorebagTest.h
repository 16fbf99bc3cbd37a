#pragma once

// Runs the real zunstorebag.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "platform/Crypto.h"
#include "support/ScratchFolder.h"
#include "values/Base64.h"
#include "values/JSONReader.h"
#include "values/PropertyList.h"

extern char** environ;

namespace zun {

namespace fs = std::filesystem;

struct Outcome {
  int exitCode = -1;
  std::string output;
  std::string errors;
};

inline std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

class ZunstorebagTest : public ::testing::Test {
 protected:
  // Runs the tool with these arguments to its end.
  Outcome run(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{ZUNSTOREBAG};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const std::string output = scratch_.path("stdout");
    const std::string errors = scratch_.path("stderr");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), kFlags, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), kFlags, 0600);
    pid_t process = 0;
    EXPECT_EQ(posix_spawn(&process, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(output), contentOf(errors)};
  }

  std::string file(const std::string& name) const { return scratch_.path(name); }

  std::string write(const std::string& name, const std::string& content) {
    std::ofstream(file(name), std::ios::binary) << content;
    return file(name);
  }

  void makeKeys() {
    ASSERT_EQ(
        run({"keygen", "--private-key", file("private.pem"), "--public-key", file("public.der")}).exitCode,
        0);
  }

  Outcome sign(const std::string& source, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"sign", source, "--key", file("private.pem"), "--plain"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    if (std::find(more.begin(), more.end(), "-o") == more.end()) {
      arguments.insert(arguments.end(), {"-o", file("envelope")});
    }
    return run(arguments);
  }

  std::string signCommand(const std::string& source, const std::string& output) const {
    return std::string(ZUNSTOREBAG) + " sign " + source + " --key " + file("private.pem") + " -o " + output;
  }
  static int shell(const std::string& command) { return std::system(command.c_str()); }

  Outcome verify(const std::string& envelope) {
    return run({"verify", envelope, "--key", file("public.der")});
  }

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  // No file that is half written stays behind.
  void expectNoStrayFiles() const {
    for (const auto& entry : fs::directory_iterator(scratch_.path())) {
      const std::string name = entry.path().filename();
      EXPECT_FALSE(name.starts_with("envelope.") || name.starts_with("private.pem.") ||
                   name.starts_with("public.der."))
          << name;
    }
  }

  static constexpr const char* kComplete = R"({
    "version": "2.5", "refresh_cycle": 600,
    "shared_values": {"==regions": "DE,FR"},
    "development": {"kodo": {"active": true}}, "vantix_internal": {"kodo": {"active": true}},
    "seed": {"kodo": {"active": true}},
    "release": {"httpPost": {"clients": [{"client": "Foo,Bar", "locale_whitelist": "==regions", "filters": [],
                "sampling_threshold": 0.5, "post_url": "https://example.com/events"}]}}})";

  ScratchFolder scratch_;
};

}  // namespace zun
