// One call is one line, whatever clients and servers put into it: on a stream, and in the
// journal.

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "linux/files/FileDescriptor.h"
#include "linux/system/JournalWriter.h"
#include "linux/system/SystemLogs.h"
#include "values/Value.h"

namespace {

constexpr size_t kLongest = zun::SystemLog::kMaximumLineBytes;

/// What a log writes to, and what it has written.
class Stream final {
 public:
  Stream() {
    int ends[2] = {-1, -1};
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0, "socket pair");
    writing_ = zun::FileDescriptor(ends[0]);
    reading_ = zun::FileDescriptor(ends[1]);
  }
  [[nodiscard]] int descriptor() const { return writing_.get(); }
  std::string take() {
    const ssize_t count = ::recv(reading_.get(), buffer_.data(), buffer_.size(), 0);
    return buffer_.substr(0, count < 0 ? 0 : static_cast<size_t>(count));
  }

 private:
  zun::FileDescriptor writing_;
  zun::FileDescriptor reading_;
  std::string buffer_ = std::string(8 * kLongest, '\0');
};

void writeLine(std::string_view text) {
  static Stream stream;
  static zun::StreamLog log(stream.descriptor(), zun::LogLevel::kDebug);
  log.note("{}", text);
  std::string written = stream.take();
  check(written.ends_with('\n'), "a line ends");
  if (text.size() > kLongest) {  // the first that is cut is told of
    written = written.substr(0, written.find('\n') + 1);
    check(written.size() < 4 * kLongest + 200, "a line is bounded");
  }
  check(written.starts_with("zunreportingd["), "a line begins with its program");
  check(written.find(" default: ") != std::string::npos, "a line names its level");
  for (const char character : written.substr(0, written.size() - 1)) {
    const auto byte = static_cast<unsigned char>(character);
    check((byte >= 0x20 && byte != 0x7F) || byte == '\t', "one call is one line");
  }
}

/// The field's text comes back by its length, and nothing follows it.
void writeField(std::string_view text) {
  std::string entry;
  zun::appendJournalField(entry, "MESSAGE", text);
  constexpr std::string_view kStart = "MESSAGE\n";
  check(entry.starts_with(kStart), "a field has its name");
  uint64_t length = 0;
  check(entry.size() == kStart.size() + sizeof length + text.size() + 1, "a field has its length");
  std::memcpy(&length, entry.data() + kStart.size(), sizeof length);
  check(length == text.size() && entry.ends_with('\n'), "a field says its length");
  check(std::string_view(entry).substr(kStart.size() + sizeof length, text.size()) == text,
        "a field is whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const bool isLong = input.byte() % 64 == 0;
  const std::string_view text = input.rest();
  writeLine(text);
  writeField(text);
  std::string repeated;
  while (isLong && !text.empty() && repeated.size() <= kLongest + 4) repeated += text;
  writeLine(repeated);
  const std::string description =
      zun::Value(zun::Array{zun::Value(text), zun::Value::data(text)}).description();
  check(description.find('\n') == std::string::npos, "a description is one line");
  return 0;
}
