// zunstorebag: makes, checks and shows signed storebags.

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "Commands.h"

namespace {

void addKeygen(CLI::App& app, zun::KeygenOptions& options) {
  app.add_option("--private-key", options.privateKey,
                 "Private key to write, PEM, readable by its owner alone")
      ->capture_default_str();
  app.add_option("--public-key", options.publicKey, "Public key to write, DER")->capture_default_str();
  app.add_option("--bits", options.bits, "Size of the key")
      ->capture_default_str()
      ->check(CLI::Range(2048, 8192));
  app.add_flag("--force", options.force, "Replace existing files");
}

void addSign(CLI::App& app, zun::SignOptions& options) {
  app.add_option("source", options.source,
                 "Storebag: JSON, XML or binary property list; - reads standard input")
      ->required();
  app.add_option("--key", options.key, "Private key, PEM")->required();
  app.add_option("-o,--output", options.output, "Envelope to write; - writes standard output")->required();
  app.add_option_function<std::vector<std::string>>(
         "--define",
         [&options](const std::vector<std::string>& definitions) {
           for (const std::string& definition : definitions) {
             const size_t equals = definition.find('=');
             if (equals == 0 || equals == std::string::npos)
               throw CLI::ValidationError("--define", "takes NAME=VALUE");
             options.definitions.emplace_back(definition.substr(0, equals), definition.substr(equals + 1));
           }
         },
         "NAME=VALUE: puts VALUE in the place of @NAME@ in every string")
      ->type_name("NAME=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--binary", options.isBinary, "Write the envelope as a binary property list instead of XML");
  app.add_flag("--strict", options.isStrict, "Take warnings for errors");
  app.add_flag(
      "--plain", options.isPlain,
      "Add neither \"name\" nor \"serial\": devices take it under any name, and older ones after it");
}

void addVerify(CLI::App& app, zun::VerifyOptions& options) {
  app.add_option("envelope", options.envelope, "Signed storebag; - reads standard input")->required();
  app.add_option("--key", options.key, "Public key, DER")->capture_default_str();
}

void addShow(CLI::App& app, zun::ShowOptions& options) {
  app.add_option("file", options.file, "Envelope or plain storebag; - reads standard input")->required();
  app.add_option("--environment", options.environment,
                 "Show the section that a daemon of this environment builds its backends from")
      ->check(CLI::IsMember({"development", "vantix_internal", "seed", "release"}));
}

int run(int argc, char** argv) {
  CLI::App app(
      "Makes, checks and shows signed storebags.\n"
      "Exit codes: 0 all is well; 1 the signature does not verify or the content is no storebag;\n"
      "2 wrong usage, or a file that cannot be read or written.",
      "zunstorebag");
  app.set_version_flag("--version", "zunstorebag " ZUN_VERSION);
  app.require_subcommand(1);
  zun::KeygenOptions keygen;
  zun::SignOptions sign;
  zun::VerifyOptions verify;
  zun::ShowOptions show;
  CLI::App* const keygenCommand = app.add_subcommand("keygen", "Make a key pair");
  CLI::App* const signCommand =
      app.add_subcommand("sign", "Check a storebag and seal it in a signed envelope");
  CLI::App* const verifyCommand = app.add_subcommand("verify", "Check an envelope as the daemon does");
  CLI::App* const showCommand =
      app.add_subcommand("show", "Print what an envelope or a storebag holds as JSON; verifies nothing");
  addKeygen(*keygenCommand, keygen);
  addSign(*signCommand, sign);
  addVerify(*verifyCommand, verify);
  addShow(*showCommand, show);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? zun::kExitOK : zun::kExitUsage;
  }
  if (keygenCommand->parsed()) return zun::runKeygen(keygen);
  if (signCommand->parsed()) return zun::runSign(sign);
  return verifyCommand->parsed() ? zun::runVerify(verify) : zun::runShow(show);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    std::cerr << "zunstorebag: " << failure.what() << '\n';
    return zun::kExitUsage;
  }
}
