#pragma once

#include <endian.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <string_view>

#include "linux/files/FileDescriptor.h"

namespace zun {

/// A socket as the journal's, at a path of the test's. One thread.
class JournalStandIn final {
 public:
  explicit JournalStandIn(const std::string& path)
      : path_(path), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~JournalStandIn() { ::unlink(path_.c_str()); }
  JournalStandIn(const JournalStandIn&) = delete;
  JournalStandIn& operator=(const JournalStandIn&) = delete;

  /// Fields of the next entry.
  std::map<std::string, std::string> receive() {
    pollfd ready{socket_.get(), POLLIN, 0};
    if (::poll(&ready, 1, 60'000) != 1) return {};
    std::string bytes(size_t{1} << 20, '\0');
    const ssize_t length = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
    return fieldsOf(std::string_view(bytes).substr(0, static_cast<size_t>(std::max<ssize_t>(length, 0))));
  }
  bool isEmpty() const {
    pollfd ready{socket_.get(), POLLIN, 0};
    return ::poll(&ready, 1, 0) == 0;
  }

 private:
  /// "NAME\n", eight bytes of length, the value, "\n", and so on.
  static std::map<std::string, std::string> fieldsOf(std::string_view entry) {
    std::map<std::string, std::string> fields;
    while (!entry.empty()) {
      const size_t end = entry.find('\n');
      uint64_t length = 0;
      if (end == std::string_view::npos || entry.size() < end + 1 + sizeof length) return {};
      std::memcpy(&length, entry.data() + end + 1, sizeof length);
      const size_t start = end + 1 + sizeof length;
      length = le64toh(length);
      if (entry.size() <= start + length || entry[start + length] != '\n') return {};
      fields[std::string(entry.substr(0, end))] = entry.substr(start, length);
      entry.remove_prefix(start + length + 1);
    }
    return fields;
  }

  const std::string path_;
  FileDescriptor socket_;
};

}  // namespace zun
