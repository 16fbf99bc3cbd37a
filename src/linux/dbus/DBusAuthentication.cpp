#include "linux/dbus/DBusAuthentication.h"

#include <charconv>
#include <optional>

namespace zun {

namespace {

constexpr size_t kMaximumLineBytes = 1024;
constexpr size_t kMaximumLines = 32;

std::optional<int> hexadecimalDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return std::nullopt;
}

/// The user id that the hexadecimal form of its decimal digits stands for.
std::optional<uint32_t> userFromResponse(std::string_view hexadecimal) {
  std::string digits;
  for (size_t index = 0; index + 1 < hexadecimal.size(); index += 2) {
    const auto high = hexadecimalDigit(hexadecimal[index]);
    const auto low = hexadecimalDigit(hexadecimal[index + 1]);
    if (!high || !low) return std::nullopt;
    digits += static_cast<char>(*high * 16 + *low);
  }
  uint32_t user = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), user);
  const bool isWhole = hexadecimal.size() % 2 == 0 && end == digits.data() + digits.size();
  return error == std::errc() && isWhole ? std::optional(user) : std::nullopt;
}

/// Cuts the first word off `text`.
std::string_view takeWord(std::string_view& text) {
  const size_t end = text.find(' ');
  const std::string_view word = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return word;
}

}  // namespace

size_t DBusAuthentication::feed(std::string_view bytes, std::string& replies) {
  size_t taken = 0;
  while (state_ == State::kOngoing && taken < bytes.size()) {
    if (step_ == Step::kCredentialsByte) {
      if (bytes[taken++] != '\0') fail("it did not begin with a zero byte");
      step_ = Step::kAuth;
      continue;
    }
    const size_t end = bytes.find('\n', taken);
    const size_t count = (end == std::string_view::npos ? bytes.size() : end + 1) - taken;
    if (line_.size() + count > kMaximumLineBytes) {
      fail("it sent an over-long line");
      break;
    }
    line_.append(bytes.substr(taken, count));
    taken += count;
    if (end == std::string_view::npos) break;
    if (!line_.ends_with("\r\n")) {
      fail("it sent a line without a proper end");
    } else if (++lines_ > kMaximumLines) {
      fail("it sent too many lines");
    } else {
      handleLine(std::string_view(line_).substr(0, line_.size() - 2), replies);
    }
    line_.clear();
  }
  return taken;
}

void DBusAuthentication::handleLine(std::string_view line, std::string& replies) {
  std::string_view arguments = line;
  const std::string_view command = takeWord(arguments);
  if (command == "AUTH") {
    handleAuth(arguments, replies);
  } else if (command == "DATA") {
    handleData(arguments, replies);
  } else if (command == "CANCEL" || command == "ERROR") {
    handleCancel(replies);
  } else if (command == "NEGOTIATE_UNIX_FD" && step_ == Step::kBegin) {
    passesDescriptors_ = true;
    replies += "AGREE_UNIX_FD\r\n";
  } else if (command == "BEGIN" && step_ == Step::kBegin) {
    state_ = State::kDone;
  } else if (command == "BEGIN") {
    fail("it began without being authenticated");
  } else {
    replies += "ERROR\r\n";
  }
}

void DBusAuthentication::handleAuth(std::string_view arguments, std::string& replies) {
  if (step_ != Step::kAuth) {
    replies += "ERROR\r\n";
    return;
  }
  if (takeWord(arguments) != "EXTERNAL") {
    reject(replies);
  } else if (arguments.empty()) {
    step_ = Step::kData;
    replies += "DATA\r\n";
  } else {
    handleResponse(arguments, replies);
  }
}

void DBusAuthentication::handleData(std::string_view response, std::string& replies) {
  if (step_ == Step::kData) {
    handleResponse(response, replies);
  } else {
    replies += "ERROR\r\n";
  }
}

void DBusAuthentication::handleResponse(std::string_view hexadecimal, std::string& replies) {
  if (!hexadecimal.empty() && userFromResponse(hexadecimal) != peerUser_) {
    reject(replies);
    return;
  }
  step_ = Step::kBegin;
  replies += "OK " + serverID_ + "\r\n";
}

void DBusAuthentication::handleCancel(std::string& replies) {
  passesDescriptors_ = false;
  reject(replies);
}

void DBusAuthentication::reject(std::string& replies) {
  step_ = Step::kAuth;
  replies += "REJECTED EXTERNAL\r\n";
}

void DBusAuthentication::fail(const char* reason) {
  state_ = State::kFailed;
  failure_ = reason;
}

}  // namespace zun
