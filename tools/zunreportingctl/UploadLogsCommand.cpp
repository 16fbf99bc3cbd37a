#include "UploadLogsCommand.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "JSONProperties.h"
#include "LineReader.h"
#include "Session.h"
#include "values/JSONReader.h"

namespace zun {

namespace {

using zunreporting::Failure;
using zunreporting::PropertyArray;
using zunreporting::PropertyValue;
using zunreporting::ReportingSession;

/// Of one call; the daemon takes messages of 1 MiB.
constexpr size_t kLargestUpload = (size_t{1} << 20) - 4096;

/// One run of `upload-logs`, from the first record to the last.
class LogUploading final {
 public:
  LogUploading(const Context& context, ReportingSession& session)
      : context_(context), session_(session), lines_(context.input) {}

  int uploadAll() {
    while (!hasLostConnection_ && lines_.next()) take();
    if (!records_.empty() && !hasLostConnection_) upload();
    context_.output << "uploaded " << uploaded_ << " records, " << failed_ << " failed\n";
    if (hasLostConnection_) return kExitNoSession;
    return failed_ == 0 ? kExitOK : kExitFailed;
  }

 private:
  void take() {
    if (lines_.isTooLong())
      return refuse("longer than " + std::to_string(LineReader::kLongestLine) + " bytes");
    const auto parsed = parseJSON(lines_.line());
    if (!parsed) return refuse("not JSON: " + parsed.error());
    if (parsed->isNone()) return refuse("null is no record");
    PropertyValue record = propertyOf(*parsed);
    const size_t size = largestMessageSize(record);
    if (size > kLargestUpload) return refuse("too large for one message");
    if (size_ + size > kLargestUpload) upload();
    size_ += size;
    records_.push_back(std::move(record));
  }

  void refuse(const std::string& why) {
    ++failed_;
    context_.errors << "zunreportingctl: line " << lines_.number() << ": " << why << '\n';
  }

  void upload() {
    const auto outcome = session_.uploadLogData(records_);
    if (outcome && *outcome.value) {
      uploaded_ += records_.size();
    } else {
      failed_ += records_.size();
      const std::string why = outcome ? "the daemon could not upload them, see its log" : outcome.error;
      tellFailure(context_, outcome.failure, std::to_string(records_.size()) + " records: " + why);
      hasLostConnection_ = outcome.failure == Failure::kConnection;
    }
    records_.clear();
    size_ = 0;
  }

  const Context& context_;
  ReportingSession& session_;
  LineReader lines_;
  PropertyArray records_;
  size_t size_ = 0;  // of `records_` in a message, at most
  uint64_t uploaded_ = 0;
  uint64_t failed_ = 0;
  bool hasLostConnection_ = false;
};

int run(const SessionOptions& options, const Context& context) {
  const auto session = openSession(options, context, context.output);
  if (session == nullptr) return kExitNoSession;
  const int exitCode = LogUploading(context, *session).uploadAll();
  if (exitCode == kExitNoSession) return exitCode;
  return finishSession(*session, context) ? exitCode : kExitFailed;
}

}  // namespace

Subcommand addUploadLogsCommand(CLI::App& app) {
  const auto options = std::make_shared<SessionOptions>();
  options->defaultClientName = "zunreportingctl";
  CLI::App* const uploadLogs = app.add_subcommand(
      "upload-logs", "Has log records uploaded, read from standard input, one JSON value a line");
  uploadLogs->footer(
      "The records go in one archive, or in several when they are larger than a message may be\n"
      "(1 MiB).\n"
      "Exit codes: 0 all uploaded, 1 some were not, 2 wrong usage, 3 no session.");
  addSessionOptions(*uploadLogs, *options);
  return {uploadLogs, [options](const Context& context) { return run(*options, context); }};
}

}  // namespace zun
