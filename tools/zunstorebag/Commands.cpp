#include "Commands.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "FileOutput.h"
#include "StorebagCheck.h"
#include "platform/Crypto.h"
#include "platform/SystemLog.h"
#include "storebag/SharedValues.h"
#include "values/Base64.h"
#include "values/JSONWriter.h"
#include "values/PropertyList.h"

namespace zun {

namespace {

constexpr unsigned kPrivateMode = 0600;
constexpr unsigned kPublicMode = 0644;

int fail(int code, std::string_view text) {
  fmt::print(stderr, "zunstorebag: {}\n", text);
  return code;
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

/// Shows macros as they are expanded: debug lines, on standard error.
class MacroLog final : public SystemLog {
 public:
  bool isEnabled(LogLevel level) const override { return level == LogLevel::kError; }
  void write(LogLevel, std::string_view line) override { fmt::print(stderr, "{}\n", line); }
};

// True if nothing stands against using the storebag.
bool report(const std::vector<StorebagFinding>& findings, bool isStrict) {
  bool isGood = true;
  for (const StorebagFinding& finding : findings) {
    const bool isError = finding.severity == StorebagFinding::Severity::kError;
    fmt::print(stderr, "{}: {}{}{}\n", isError ? "error" : "warning", finding.where,
               finding.where.empty() ? "" : ": ", finding.text);
    isGood &= !isError && !isStrict;
  }
  return isGood;
}

std::string sealed(std::string_view bag, std::string_view signature, bool isBinary) {
  const Value envelope = Dictionary{{"signature", base64Encode(signature)}, {"bag", base64Encode(bag)}};
  return isBinary ? serializeBinaryPropertyList(envelope) : serializeXMLPropertyList(envelope);
}

// The name that devices ask for a file by: its own, where it is served as it is written, or
// its source's.
std::string nameOfFiles(const SignOptions& options) {
  const std::string served = std::filesystem::path(options.output).filename();
  if (isStorebagName(served)) return served;
  const std::string source = std::filesystem::path(options.source).stem();
  return isStorebagName(source) ? source : "";
}

// With which storebag it is and when it was signed, where its author has written nothing else.
Value withNameAndSerial(const Value& source, const std::string& name) {
  if (!source.isDictionary()) return source;
  Dictionary storebag = *source.dictionary();
  if (!storebag.contains("name") && !name.empty()) storebag.set("name", name);
  if (!storebag.contains("serial")) storebag.set("serial", static_cast<int64_t>(std::time(nullptr)));
  return storebag;
}

std::optional<StorebagFinding> checkName(const Value& storebag, const std::string& nameOfFile) {
  const Dictionary* const fields = storebag.dictionary();
  if (fields == nullptr) return std::nullopt;
  const Value& name = (*fields)["name"];
  std::string text;
  if (name.isNone()) {
    text = "missing, and no file is named after a storebag: devices take it under any name";
  } else if (!nameOfFile.empty() && name.stringValue() != nameOfFile) {
    text = fmt::format("must be \"{}\" where devices ask for that, is \"{}\"", nameOfFile, name);
  } else {
    return std::nullopt;
  }
  return StorebagFinding{StorebagFinding::Severity::kWarning, "name", std::move(text)};
}

// The inner storebag of a file that holds an envelope or a plain storebag.
Result<Value, std::string> innerStorebag(const Value& content) {
  if (!isEnvelope(content)) return content;
  auto envelope = decodeEnvelope(content);
  if (!envelope) return Result<Value, std::string>::failure(envelope.error());
  return parsePropertyList(envelope->bag);
}

// What a daemon of that environment builds its backends from.
std::optional<Dictionary> sectionOf(const Dictionary& storebag, const std::string& environment) {
  MacroLog log;
  const Dictionary expanded = expandSharedValues(storebag, log);
  const Dictionary* section = expanded[environment].dictionary();
  if (section == nullptr && environment == "seed") section = expanded["release"].dictionary();
  if (section == nullptr) return std::nullopt;
  Dictionary seen = *section;
  if (expanded.contains("release_timeout")) seen.set("release_timeout", expanded["release_timeout"]);
  return seen;
}

}  // namespace

int runKeygen(const KeygenOptions& options) {
  if (!options.force) {
    for (const std::string& path : {options.privateKey, options.publicKey}) {
      if (exists(path)) return fail(kExitUsage, path + " exists: --force replaces it");
    }
  }
  const auto key = RSAPrivateKey::generate(options.bits);
  if (!key) return fail(kExitUsage, "cannot make a key");
  const Overwrite overwrite = options.force ? Overwrite::kReplace : Overwrite::kRefuse;
  if (const auto error = writeWholeFile(options.privateKey, key->pem(), kPrivateMode, overwrite)) {
    return fail(kExitUsage, *error);
  }
  if (const auto error = writeWholeFile(options.publicKey, key->publicKeyDER(), kPublicMode, overwrite)) {
    // A private key whose public half nobody has is of no use.
    if (!options.force) ::unlink(options.privateKey.c_str());
    return fail(kExitUsage, *error);
  }
  fmt::print("private key: {} (keep it secret)\npublic key:  {} (goes into the daemon's resources)\n",
             options.privateKey, options.publicKey);
  return kExitOK;
}

int runSign(const SignOptions& options) {
  const auto bytes = readInput(options.source);
  if (!bytes) return fail(kExitUsage, bytes.error());
  const auto pem = readInput(options.key);
  if (!pem) return fail(kExitUsage, pem.error());
  const auto key = RSAPrivateKey::fromPEM(*pem);
  if (!key) return fail(kExitUsage, options.key + " is no RSA private key in PEM form");

  const auto source = parseSource(*bytes);
  if (!source) return fail(kExitInvalid, options.source + ": " + source.error());
  if (isEnvelope(*source)) return fail(kExitInvalid, options.source + " is signed already");
  const auto complete = replacePlaceholders(*source, options.definitions);
  if (!complete) return fail(kExitInvalid, options.source + ": " + complete.error());
  const std::string name = nameOfFiles(options);
  const Value storebag = options.isPlain ? *complete : withNameAndSerial(*complete, name);
  std::vector<StorebagFinding> findings = checkStorebag(storebag);
  if (const auto finding = options.isPlain ? std::nullopt : checkName(storebag, name)) {
    findings.push_back(*finding);
  }
  if (!report(findings, options.isStrict)) return fail(kExitInvalid, options.source + " was not signed");
  const std::string bag = serializeBinaryPropertyList(storebag);
  const auto signature = key->signSHA1(bag);
  if (!signature) return fail(kExitUsage, "cannot sign with " + options.key);
  const std::string envelope = sealed(bag, *signature, options.isBinary);
  if (options.output == "-") {
    return std::fwrite(envelope.data(), 1, envelope.size(), stdout) == envelope.size() ? kExitOK : kExitUsage;
  }
  if (const auto error = writeWholeFile(options.output, envelope, kPublicMode, Overwrite::kReplace)) {
    return fail(kExitUsage, *error);
  }
  return kExitOK;
}

int runVerify(const VerifyOptions& options) {
  const auto bytes = readInput(options.envelope);
  if (!bytes) return fail(kExitUsage, bytes.error());
  const auto der = readInput(options.key);
  if (!der) return fail(kExitUsage, der.error());
  const auto key = RSAPublicKey::fromDER(*der);
  if (!key) return fail(kExitUsage, options.key + " is no RSA public key in DER form");

  const auto content = parsePropertyList(*bytes);
  if (!content) return fail(kExitInvalid, options.envelope + ": " + content.error());
  const auto envelope = decodeEnvelope(*content);
  if (!envelope) return fail(kExitInvalid, options.envelope + ": " + envelope.error());
  if (!key->verifySHA1Signature(envelope->bag, envelope->signature)) {
    return fail(kExitInvalid, options.envelope + ": the signature does not verify");
  }
  const auto storebag = parsePropertyList(envelope->bag);
  if (!storebag)
    return fail(kExitInvalid, options.envelope + ": signed, but no property list: " + storebag.error());
  if (!report(checkStorebag(*storebag), false)) return kExitInvalid;
  const auto told = [fields = storebag->dictionary()](std::string_view field) {
    const Value& value = (*fields)[field];
    return value.isNone() ? Value::literal("(none)") : value;
  };
  fmt::print("{}: the signature verifies, version {}, name {}, serial {}\n", options.envelope,
             told("version"), told("name"), told("serial"));
  return kExitOK;
}

int runShow(const ShowOptions& options) {
  const auto bytes = readInput(options.file);
  if (!bytes) return fail(kExitUsage, bytes.error());
  const auto content = parseSource(*bytes);
  if (!content) return fail(kExitInvalid, options.file + ": " + content.error());
  const auto storebag = innerStorebag(*content);
  if (!storebag) return fail(kExitInvalid, options.file + ": " + storebag.error());
  if (!storebag->isDictionary()) return fail(kExitInvalid, options.file + " holds no dictionary");
  Value shown = *storebag;
  if (options.environment) {
    const auto section = sectionOf(*storebag->dictionary(), *options.environment);
    if (!section) return fail(kExitInvalid, options.file + " has no section \"" + *options.environment + '"');
    shown = *section;
  }
  fmt::print("{}\n", writeJSON(shown, JSONFormat::kPretty));
  return kExitOK;
}

}  // namespace zun
