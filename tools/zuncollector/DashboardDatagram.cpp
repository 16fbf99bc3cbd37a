#include "DashboardDatagram.h"

#include <fmt/format.h>

#include "values/UTF8.h"

namespace zun {

namespace {

constexpr size_t kDeviceIDBytes = 40;
constexpr uint8_t kSubsecondsOfASecond = 250;
constexpr uint16_t kMillisecondsOfASubsecond = 4;

/// Reads big-endian numbers at offsets that lie within the bytes.
class Header final {
 public:
  explicit Header(std::string_view bytes) : bytes_(bytes) {}

  [[nodiscard]] uint8_t byte(size_t offset) const { return static_cast<uint8_t>(bytes_[offset]); }
  [[nodiscard]] uint16_t two(size_t offset) const {
    return static_cast<uint16_t>(byte(offset) << 8 | byte(offset + 1));
  }
  [[nodiscard]] uint32_t four(size_t offset) const { return uint32_t{two(offset)} << 16 | two(offset + 2); }
  [[nodiscard]] uint16_t invertedTwo(size_t offset) const { return static_cast<uint16_t>(~two(offset)); }
  [[nodiscard]] uint32_t invertedFour(size_t offset) const { return ~four(offset); }

 private:
  std::string_view bytes_;
};

/// Why `bytes`, long enough for a header, are no datagram; empty if they are one.
std::string whyMalformed(std::string_view bytes) {
  const Header header(bytes);
  const size_t length = header.invertedTwo(14);
  if (length != bytes.size()) {
    return fmt::format("{} bytes have come, its header tells {}", bytes.size(), length);
  }
  if (header.byte(2) != 1) return fmt::format("the constant 1 is {}", header.byte(2));
  if (header.byte(3) >= kSubsecondsOfASecond) {
    return fmt::format("{} units of 4 ms are more than a second", header.byte(3));
  }
  return {};
}

/// Where a key begins, and the "=" behind it.
struct Divider {
  size_t key;
  size_t equals;
};

std::vector<Divider> dividers(std::string_view text) {
  std::vector<Divider> found;
  size_t word = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == ' ') {
      word = i + 1;
    } else if (text[i] == '=') {
      const bool isSameWord = !found.empty() && found.back().key == word;
      if (isSameWord) found.pop_back();
      found.push_back({word, i});
    }
  }
  return found;
}

std::string withoutEscapes(std::string_view value) {
  std::string plain;
  plain.reserve(value.size());
  for (size_t i = 0; i < value.size(); ++i) {
    const bool isEscape =
        value[i] == '\\' && i + 1 < value.size() && (value[i + 1] == '\\' || value[i + 1] == '=');
    plain += isEscape ? value[++i] : value[i];
  }
  return plain;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> dashboardFields(std::string_view text) {
  const std::vector<Divider> found = dividers(text);
  std::vector<std::pair<std::string, std::string>> fields;
  fields.reserve(found.size());
  for (size_t i = 0; i < found.size(); ++i) {
    const auto [key, equals] = found[i];
    // The blank before the next key is no part of the value.
    const size_t end = i + 1 < found.size() ? found[i + 1].key - 1 : text.size();
    fields.emplace_back(text.substr(key, equals - key),
                        withoutEscapes(text.substr(equals + 1, end - equals - 1)));
  }
  return fields;
}

Result<DashboardDatagram, std::string> DashboardDatagram::decode(std::string_view bytes) {
  using Decoded = Result<DashboardDatagram, std::string>;
  if (bytes.size() < kHeaderBytes) {
    return Decoded::failure(fmt::format("{} bytes are no header", bytes.size()));
  }
  if (bytes.size() > kLargest) return Decoded::failure(fmt::format("{} bytes are too many", bytes.size()));
  if (std::string why = whyMalformed(bytes); !why.empty()) return Decoded::failure(std::move(why));

  const Header header(bytes);
  const std::string_view deviceID = bytes.substr(20, kDeviceIDBytes);
  DashboardDatagram datagram;
  datagram.formatVersion = header.byte(0);
  datagram.clientType = header.byte(1);
  datagram.milliseconds = static_cast<uint16_t>(header.byte(3) * kMillisecondsOfASubsecond);
  datagram.seconds = header.four(4);
  datagram.sessionID = header.invertedFour(8);
  datagram.clientVersion = header.invertedTwo(12);
  datagram.method = header.two(16);
  datagram.respCode = header.two(18);
  datagram.deviceID = deviceID.substr(0, deviceID.find('\0'));
  datagram.eventNumber = header.two(60);
  datagram.flags = header.two(62);
  datagram.text = bytes.substr(kHeaderBytes);
  return datagram;
}

std::vector<std::pair<std::string, std::string>> DashboardDatagram::fields() const {
  return dashboardFields(text);
}

Dictionary DashboardDatagram::record() const {
  Dictionary values;
  for (const auto& [key, value] : fields()) {
    values.set(replacingInvalidUTF8(key), replacingInvalidUTF8(value));
  }
  return {
      {"formatVersion", formatVersion},
      {"clientType", clientType},
      {"timestamp", seconds + milliseconds / 1000.0},
      {"sessionID", sessionID},
      {"clientVersion", clientVersion},
      {"method", method},
      {"respCode", respCode},
      {"deviceID", replacingInvalidUTF8(deviceID)},
      {"eventNumber", eventNumber},
      {"flags", flags},
      {"reliable", isReliable()},
      {"withoutProfile", isWithoutProfile()},
      {"mayBeCut", mayBeCut()},
      {"text", replacingInvalidUTF8(text)},
      {"fields", std::move(values)},
  };
}

}  // namespace zun
