#include "backends/DashboardDatagram.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstring>
#include <new>
#include <vector>

#include "values/UTF8.h"

namespace zun {

namespace {

// Where the fields are, in bytes from the start.
constexpr size_t kFormatMajorVersionAt = 0;
constexpr size_t kClientTypeAt = 1;
constexpr size_t kConstantAt = 2;
constexpr size_t kSubSecondAt = 3;
constexpr size_t kSecondsAt = 4;
constexpr size_t kInvertedSessionIDAt = 8;
constexpr size_t kInvertedClientVersionAt = 12;
constexpr size_t kInvertedLengthAt = 14;
constexpr size_t kMethodAt = 16;
constexpr size_t kRespCodeAt = 18;
constexpr size_t kDeviceIdentifierAt = 20;
constexpr size_t kEventNumberAt = 60;
constexpr size_t kFlagsAt = 62;

constexpr std::byte kConstant{1};
constexpr int kSubSecondMicroseconds = 4000;
constexpr int kSubSecondMilliseconds = 4;
constexpr uint16_t kFlagReliable = 1;
constexpr uint16_t kFlagWithoutProfile = 2;

constexpr size_t kLocalRecordBufferBytes = 1152;
constexpr std::string_view kNoDescription = "null";
constexpr std::string_view kEmpty = "empty";

template <std::unsigned_integral Integer>
void putBigEndian(std::byte* buffer, size_t at, Integer value) {
  for (size_t i = 0; i < sizeof value; ++i)
    buffer[at + i] = static_cast<std::byte>(value >> (8 * (sizeof value - 1 - i)));
}

template <std::unsigned_integral Integer>
Integer bigEndianAt(std::span<const std::byte> bytes, size_t at) {
  uint64_t value = 0;
  for (size_t i = 0; i < sizeof(Integer); ++i) value = value << 8 | std::to_integer<uint64_t>(bytes[at + i]);
  return static_cast<Integer>(value);
}

template <std::unsigned_integral Integer>
Integer inverted(Integer value) {
  return static_cast<Integer>(~value);
}

/// Text is made for servers that read C strings: what stands behind a zero would not be
/// seen, so it is not sent.
std::string_view upToZero(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

/// Text in a bounded piece of the datagram. What does not fit is cut off, at the very
/// byte.
class TextBuffer final {
 public:
  explicit TextBuffer(std::span<std::byte> room) : room_(room) {}

  [[nodiscard]] bool isFull() const { return length_ == room_.size(); }
  [[nodiscard]] size_t length() const { return length_; }

  void append(char character) {
    if (!isFull()) room_[length_++] = static_cast<std::byte>(character);
  }
  void append(std::string_view text) {
    const size_t count = std::min(text.size(), room_.size() - length_);
    if (count > 0) std::memcpy(room_.data() + length_, text.data(), count);
    length_ += count;
  }

 private:
  const std::span<std::byte> room_;
  size_t length_ = 0;
};

/// An entry of the payload on its way into the text. Refers to the payload.
struct TextEntry {
  std::string_view key;
  std::string_view string;  // of a string or null; a number's text is its own
  std::string number;
  size_t length = 0;  // of the description

  [[nodiscard]] std::string_view description() const { return number.empty() ? string : number; }
};

std::string descriptionForNumber(const Value& value) {
  if (value.isBoolean()) return value.boolValue() ? "1" : "0";
  return value.description();
}

/// Lengths of strings are counted in UTF-16 code units, as everywhere.
TextEntry describe(const DictionaryEntry& from) {
  const Value& value = from.value;
  TextEntry entry{.key = from.key.stringValue(), .string = kNoDescription, .number = {}, .length = 0};
  if (value.isString()) {
    entry.string = value.stringValue();
    entry.length = value.utf16Length();
    return entry;
  }
  if (value.isNumber()) entry.number = descriptionForNumber(value);
  entry.length = entry.description().size();
  return entry;
}

void appendSanitized(TextBuffer& out, std::string_view description) {
  bool isEmpty = true;
  for (const char character : description) {
    if (character == '\n') continue;
    isEmpty = false;
    if (character == '\\' || character == '=') out.append('\\');
    out.append(character);
    if (out.isFull()) return;
  }
  if (isEmpty) out.append(kEmpty);
}

/// Gives the bytes written.
size_t writeText(const Dictionary& payload, std::span<std::byte> room) {
  std::vector<TextEntry> entries;
  entries.reserve(payload.size());
  for (const DictionaryEntry& entry : payload) entries.push_back(describe(entry));
  std::stable_sort(entries.begin(), entries.end(),
                   [](const TextEntry& left, const TextEntry& right) { return left.length < right.length; });
  TextBuffer text(room);
  for (const TextEntry& entry : entries) {
    if (text.isFull()) break;
    text.append(' ');
    text.append(upToZero(entry.key));
    text.append('=');
    appendSanitized(text, upToZero(entry.description()));
  }
  return text.length();
}

void writeHeader(std::byte* buffer, const DashboardHeader& header, size_t length) {
  buffer[kFormatMajorVersionAt] = std::byte{header.formatMajorVersion};
  buffer[kClientTypeAt] = std::byte{header.clientType};
  buffer[kConstantAt] = kConstant;
  buffer[kSubSecondAt] = static_cast<std::byte>(header.timestamp.microseconds / kSubSecondMicroseconds);
  putBigEndian(buffer, kSecondsAt, static_cast<uint32_t>(header.timestamp.seconds));
  putBigEndian(buffer, kInvertedSessionIDAt, inverted(header.sessionID));
  putBigEndian(buffer, kInvertedClientVersionAt, inverted(header.clientVersion));
  putBigEndian(buffer, kInvertedLengthAt, inverted(static_cast<uint16_t>(length)));
  putBigEndian(buffer, kMethodAt, header.method);
  putBigEndian(buffer, kRespCodeAt, header.respCode);
  const std::string_view identifier =
      header.deviceIdentifier.substr(0, DashboardDatagram::kDeviceIdentifierBytes);
  std::fill_n(buffer + kDeviceIdentifierAt, DashboardDatagram::kDeviceIdentifierBytes, std::byte{0});
  std::transform(identifier.begin(), identifier.end(), buffer + kDeviceIdentifierAt,
                 [](char character) { return static_cast<std::byte>(character); });
  putBigEndian(buffer, kEventNumberAt, header.eventNumber);
  const unsigned flags =
      (header.isReliable ? kFlagReliable : 0U) | (header.isWithoutProfile ? kFlagWithoutProfile : 0U);
  putBigEndian(buffer, kFlagsAt, static_cast<uint16_t>(flags));
}

}  // namespace

std::optional<DashboardDatagram> DashboardDatagram::make(const DashboardHeader& header,
                                                         const Dictionary& payload) {
  std::unique_ptr<std::byte[]> buffer(new (std::nothrow) std::byte[kBufferBytes]);
  if (buffer == nullptr) return std::nullopt;
  const size_t textBytes = writeText(payload, {buffer.get() + kHeaderBytes, kTextBufferBytes - 1});
  const size_t length = kHeaderBytes + textBytes;
  writeHeader(buffer.get(), header, length);
  return DashboardDatagram(std::move(buffer), length);
}

std::string DashboardDatagram::writeLocalLog(std::string_view senderCode) const {
  const auto datagram = bytes();
  const int milliseconds = std::to_integer<int>(datagram[kSubSecondAt]) * kSubSecondMilliseconds;
  std::array<char, kLocalRecordBufferBytes - 1> record;
  const auto end = fmt::format_to_n(
      record.data(), record.size(), "{}.{:03} {} 127.0.0.1 {} {:5} {:5} {:5} {:5} {:5} {}",
      bigEndianAt<uint32_t>(datagram, kSecondsAt), milliseconds,
      upToZero(asText(datagram.subspan(kDeviceIdentifierAt, kDeviceIdentifierBytes))), senderCode,
      inverted(bigEndianAt<uint16_t>(datagram, kInvertedClientVersionAt)),
      inverted(bigEndianAt<uint32_t>(datagram, kInvertedSessionIDAt)),
      bigEndianAt<uint16_t>(datagram, kEventNumberAt), bigEndianAt<uint16_t>(datagram, kMethodAt),
      bigEndianAt<uint16_t>(datagram, kRespCodeAt), asText(datagram.subspan(kHeaderBytes)));
  const std::string_view text(record.data(), std::min(end.size, record.size()));
  // The cuts at a number of bytes may have left parts of characters.
  return isValidUTF8(text) ? std::string(text) : replacingInvalidUTF8(text);
}

std::optional<uint16_t> acknowledgedEventNumber(std::span<const std::byte> acknowledgement) {
  if (acknowledgement.size() < kEventNumberAt + sizeof(uint16_t)) return std::nullopt;
  return bigEndianAt<uint16_t>(acknowledgement, kEventNumberAt);
}

}  // namespace zun
