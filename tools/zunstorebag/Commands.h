#pragma once

#include <optional>
#include <string>

#include "StorebagSource.h"

namespace zun {

/// What the tool ends with. Stable: scripts branch on it.
enum ExitCode : int {
  kExitOK = 0,
  kExitInvalid = 1,  // does not verify, or is no storebag
  kExitUsage = 2,    // wrong arguments, input that cannot be read, output that cannot be written
};

struct KeygenOptions {
  std::string privateKey = "privateKey.pem";
  std::string publicKey = "publicKey.der";
  int bits = 2048;
  bool force = false;
};

struct SignOptions {
  std::string source;
  std::string key;
  std::string output;
  Definitions definitions;
  bool isBinary = false;
  bool isStrict = false;
  bool isPlain = false;  // adds neither "name" nor "serial"
};

struct VerifyOptions {
  std::string envelope;
  std::string key = "publicKey.der";
};

struct ShowOptions {
  std::string file;
  std::optional<std::string> environment;
};

// One function a command. Each tells people what happened on standard output and error
// and gives the exit code; none writes a file unless all went well.

int runKeygen(const KeygenOptions& options);
int runSign(const SignOptions& options);
int runVerify(const VerifyOptions& options);
int runShow(const ShowOptions& options);

}  // namespace zun
