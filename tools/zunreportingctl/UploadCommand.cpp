#include "UploadCommand.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <vector>

#include "ElapsedTime.h"
#include "Session.h"

namespace zun {

namespace {

using zunreporting::Failure;
using zunreporting::ReportingSession;

struct UploadOptions {
  SessionOptions session;
  std::vector<std::string> files;
};

std::string sizeText(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return "unknown size";
  if (status.st_size < 1'000'000) return fmt::format("{} bytes", status.st_size);
  return fmt::format("{:.1f} MB", static_cast<double>(status.st_size) / 1e6);
}

/// The path on one line that leaves a terminal as it is.
std::string printable(std::string path) {
  std::replace_if(
      path.begin(), path.end(), [](unsigned char character) { return character < ' ' || character == 0x7F; },
      '?');
  return path;
}

bool isThere(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

/// One run of `upload`, from the first file to the last.
class Uploading final {
 public:
  Uploading(const UploadOptions& options, const Context& context, ReportingSession& session)
      : options_(options), context_(context), session_(session) {}

  int uploadAll() {
    for (size_t index = 0; index < options_.files.size(); ++index) {
      const std::string& path = options_.files[index];
      const auto uploaded = upload(path, index);
      if (!uploaded)
        failWith(path, uploaded.error);
      else
        tellResult(path, *uploaded.value);
      if (uploaded.failure == Failure::kConnection) {
        for (size_t rest = index + 1; rest < options_.files.size(); ++rest)
          failWith(options_.files[rest], "not tried");
        return kExitNoSession;
      }
    }
    return exitCode_;
  }

 private:
  zunreporting::Outcome<bool> upload(const std::string& path, size_t index) {
    std::optional<ElapsedTime> progress;
    if (context_.showProgress) {
      progress.emplace(context_.errors, fmt::format("[{}/{}] {} ({})", index + 1, options_.files.size(),
                                                    printable(path), sizeText(path)));
    }
    return session_.uploadFile(path);
  }

  /// The file itself tells whether the server has confirmed it: it is removed then.
  void tellResult(const std::string& path, bool attempted) {
    if (!attempted) return failWith(path, "the daemon could not upload it, see its log");
    if (isThere(path)) return failWith(path, "sent, but not confirmed by the server; the file is kept");
    tell(path, "uploaded and removed");
  }

  void failWith(const std::string& path, const std::string& why) {
    exitCode_ = kExitFailed;
    // Errors about the file itself name it already.
    const std::string prefix = path + ": ";
    tell(path, "failed: " + (why.find(prefix) == 0 ? why.substr(prefix.size()) : why));
  }

  void tell(const std::string& path, const std::string& result) {
    context_.output << printable(path) << ": " << result << std::endl;
  }

  const UploadOptions& options_;
  const Context& context_;
  ReportingSession& session_;
  int exitCode_ = kExitOK;
};

int run(const UploadOptions& options, const Context& context) {
  const auto session = openSession(options.session, context, context.errors);
  if (session == nullptr) return kExitNoSession;
  const int exitCode = Uploading(options, context, *session).uploadAll();
  if (exitCode == kExitNoSession) return exitCode;
  return finishSession(*session, context) ? exitCode : kExitFailed;
}

}  // namespace

Subcommand addUploadCommand(CLI::App& app) {
  const auto options = std::make_shared<UploadOptions>();
  options->session.defaultClientName = "zunreportingctl";
  CLI::App* const upload =
      app.add_subcommand("upload", "Has files uploaded; removes those that the server confirms");
  upload->footer(
      "The files go, compressed, one after the other, to where the storebag says.\n"
      "A FILE THAT THE SERVER HAS CONFIRMED IS REMOVED. Prints one line for each file; goes on\n"
      "after one that failed.\n"
      "Exit codes: 0 all uploaded and confirmed, 1 some were not, 2 wrong usage, 3 no session.");
  upload->add_option("FILE", options->files, "Regular files; symbolic links are refused")->required();
  addSessionOptions(*upload, options->session);
  return {upload, [options](const Context& context) { return run(*options, context); }};
}

}  // namespace zun
