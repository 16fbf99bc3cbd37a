// The upload of a file: opened here, proven to the daemon by its descriptor.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Connection.h"
#include "FileURL.h"
#include "MessageReader.h"
#include "MessageWriter.h"
#include "zunreporting/ReportingSession.h"

namespace zunreporting {

namespace {

class Descriptor final {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int number() const { return number_; }

 private:
  const int number_;
};

Outcome<bool> refused(const std::string& path, const char* why) {
  return failed<bool>(Failure::kArgument, path + ": " + why);
}

}  // namespace

Outcome<bool> ReportingSession::uploadFile(const std::string& path) {
  if (path.find('\0') != std::string::npos) return refused(path, "not a path");
  // Opening without waiting: a pipe has nobody at its other end.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (file.number() < 0) {
    return refused(path, errno == ELOOP ? "a symbolic link, which is not followed" : std::strerror(errno));
  }
  struct stat status {};
  if (fstat(file.number(), &status) != 0) return refused(path, std::strerror(errno));
  if (!S_ISREG(status.st_mode)) return refused(path, "not a regular file");
  std::error_code error;
  const std::string absolute = std::filesystem::absolute(path, error).string();
  if (error) return refused(path, error.message().c_str());

  auto token = connection_->callFor<std::string>(
      {"com.vantix.zunreportingd.FileAccess", "issueExtension"},
      [&](sd_bus_message* message) { return sd_bus_message_append(message, "h", file.number()); }, readData);
  if (!token) return failed<bool>(token.failure, std::move(token.error));
  return connection_->callFor<bool>(
      {"com.vantix.zunreportingd.ClientSessionInterface", "uploadFileAtPath"},
      [&](sd_bus_message* message) {
        const int result = appendString(message, fileURL(absolute));
        return result < 0 ? result : appendData(message, *token.value);
      },
      readBoolean, Connection::kUploadTimeout);
}

}  // namespace zunreporting
