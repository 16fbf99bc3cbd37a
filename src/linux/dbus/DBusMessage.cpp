#include "linux/dbus/DBusMessage.h"

#include <cstring>

#include "linux/dbus/DBusNames.h"
#include "linux/dbus/DBusReader.h"
#include "linux/dbus/DBusSignature.h"
#include "linux/dbus/DBusWire.h"

namespace zun {

namespace {

constexpr size_t kBodyLengthAt = 4;
constexpr size_t kSerialAt = 8;
constexpr size_t kFieldsLengthAt = 12;

// A header that takes more is read each time.
constexpr size_t kMaximumKnownBytes = 512;

DBusFailure malformed(const char* reason) {
  return {DBusFailure::Kind::kMalformed, reason};
}

uint32_t numberAt(std::string_view bytes, size_t position) {
  uint32_t number = 0;
  std::memcpy(&number, bytes.data() + position, sizeof number);
  return bytes[0] == kDBusNativeOrder ? number : __builtin_bswap32(number);
}

/// Reads the fields of a header into it.
class FieldReader final {
 public:
  FieldReader(DBusHeader& header, DBusReader& reader) : header_(header), reader_(reader) {}

  /// Null on success, else what is wrong.
  const char* readField() {
    uint8_t code = 0;
    std::string_view type;
    if (!reader_.align(8) || !reader_.readByte(code) || !reader_.readSignatureText(type)) return failure();
    switch (static_cast<DBusField>(code)) {
      case DBusField::kPath: return readText(type, 'o', header_.path, isDBusObjectPath);
      case DBusField::kInterface: return readText(type, 's', header_.interface, isDBusInterfaceName);
      case DBusField::kMember: return readText(type, 's', header_.member, isDBusMemberName);
      case DBusField::kErrorName: return readText(type, 's', header_.errorName, isDBusInterfaceName);
      case DBusField::kDestination: return readText(type, 's', header_.destination, isDBusText);
      case DBusField::kSender: return readText(type, 's', header_.sender, isDBusText);
      case DBusField::kReplySerial: return readNumber(type, header_.replySerial);
      case DBusField::kUnixDescriptors: return readNumber(type, header_.descriptorCount);
      case DBusField::kSignature: return readSignature(type);
      default: return skip(type);
    }
  }

 private:
  [[nodiscard]] const char* failure() const { return reader_.failure().reason; }

  const char* readText(std::string_view type, char expected, std::string_view& text,
                       bool (*isValid)(std::string_view)) {
    if (type.size() != 1 || type.front() != expected) return "a header field has the wrong type";
    if (!reader_.readText(text)) return failure();
    return isValid(text) ? nullptr : "a name in the header is none";
  }

  const char* readNumber(std::string_view type, uint32_t& number) {
    if (type != "u") return "a header field has the wrong type";
    return reader_.readUInt32(number) ? nullptr : failure();
  }

  const char* readSignature(std::string_view type) {
    if (type != "g") return "a header field has the wrong type";
    if (!reader_.readSignatureText(header_.signature)) return failure();
    return DBusSignature::parse(header_.signature) ? nullptr : "the body's signature is none";
  }

  /// Fields that later versions of the protocol may bring.
  const char* skip(std::string_view type) {
    const auto signature = DBusSignature::parse(type);
    if (!signature || !signature->isSingleType()) return "a variant's signature is no single type";
    Value ignored;
    return reader_.readValue(*signature, 0, 0, ignored) ? nullptr : failure();
  }

  DBusHeader& header_;
  DBusReader& reader_;
};

/// Null when the fields are there that the type of message needs.
const char* missingField(const DBusHeader& header) {
  switch (header.type) {
    case DBusMessageType::kMethodCall:
      return header.path.empty() || header.member.empty() ? "a call lacks its path or member" : nullptr;
    case DBusMessageType::kMethodReturn:
      return header.replySerial == 0 ? "a reply lacks its serial" : nullptr;
    case DBusMessageType::kError:
      return header.replySerial == 0 || header.errorName.empty() ? "an error lacks its name or serial"
                                                                 : nullptr;
    case DBusMessageType::kSignal:
      return header.path.empty() || header.interface.empty() || header.member.empty()
                 ? "a signal lacks its path, interface or member"
                 : nullptr;
  }
  return nullptr;  // a type that a later version may bring
}

/// Sets what is the message's own. Null on success, else what is wrong.
const char* readFixedPart(DBusHeader& header, std::string_view bytes) {
  header.flags = static_cast<uint8_t>(bytes[2]);
  header.serial = numberAt(bytes, kSerialAt);
  return header.serial == 0 ? "its serial is 0" : nullptr;
}

constexpr const char* kLacksSignature = "it has a body without a signature";

bool lacksSignature(const DBusHeader& header, const DBusFrame& frame) {
  return frame.totalBytes > frame.headerBytes && header.signature.empty();
}

/// True for headers of the same order, type and fields, whatever their flags, lengths of
/// the body and serials.
bool differsInNumbersOnly(std::string_view known, std::string_view bytes) {
  constexpr size_t kOrderAndType = 2;
  return known.size() == bytes.size() && known.substr(0, kOrderAndType) == bytes.substr(0, kOrderAndType) &&
         known.substr(kFieldsLengthAt) == bytes.substr(kFieldsLengthAt);
}

}  // namespace

Result<DBusFrame, DBusFailure> frameDBusMessage(std::string_view bytes) {
  using Framed = Result<DBusFrame, DBusFailure>;
  if (bytes.size() < DBusFrame::kFixedBytes) return Framed::failure(malformed("it is too short"));
  if (bytes[0] != kDBusNativeOrder && bytes[0] != kDBusOtherOrder) {
    return Framed::failure(malformed("its byte order is unknown"));
  }
  if (bytes[1] == 0) return Framed::failure(malformed("its type is invalid"));
  if (static_cast<uint8_t>(bytes[3]) != kDBusProtocolVersion) {
    return Framed::failure(malformed("its protocol version is unknown"));
  }
  const size_t fieldsBytes = numberAt(bytes, kFieldsLengthAt);
  const size_t bodyBytes = numberAt(bytes, kBodyLengthAt);
  DBusFrame frame;
  frame.headerBytes = DBusFrame::kFixedBytes + fieldsBytes + dbusPadding(fieldsBytes, 8);
  frame.totalBytes = frame.headerBytes + bodyBytes;
  if (fieldsBytes > kDBusMaximumArrayBytes || frame.totalBytes > kDBusMaximumMessageBytes) {
    return Framed::failure(malformed("it is larger than D-Bus allows"));
  }
  return frame;
}

Result<DBusHeader, DBusFailure> decodeDBusHeader(std::string_view bytes, const DBusLimits& limits) {
  using Decoded = Result<DBusHeader, DBusFailure>;
  const auto frame = frameDBusMessage(bytes);
  if (!frame) return Decoded::failure(frame.error());
  if (frame->headerBytes > bytes.size()) return Decoded::failure(malformed("it ends within its header"));

  DBusHeader header;
  header.type = static_cast<DBusMessageType>(bytes[1]);
  header.isSwapped = bytes[0] != kDBusNativeOrder;
  if (const char* const reason = readFixedPart(header, bytes)) return Decoded::failure(malformed(reason));

  const size_t fieldsBytes = numberAt(bytes, kFieldsLengthAt);
  DBusReader reader(bytes.substr(DBusFrame::kFixedBytes, fieldsBytes), header.isSwapped, limits);
  FieldReader fields(header, reader);
  while (!reader.atEnd()) {
    if (const char* const reason = fields.readField()) return Decoded::failure(malformed(reason));
  }
  for (size_t padding = DBusFrame::kFixedBytes + fieldsBytes; padding < frame->headerBytes; ++padding) {
    if (bytes[padding] != '\0') return Decoded::failure(malformed("padding is not zero"));
  }
  if (lacksSignature(header, *frame)) return Decoded::failure(malformed(kLacksSignature));
  if (const char* const reason = missingField(header)) return Decoded::failure(malformed(reason));
  return header;
}

Result<DBusHeader, DBusFailure> DBusHeaderDecoder::decode(std::string_view bytes, const DBusLimits& limits) {
  using Decoded = Result<DBusHeader, DBusFailure>;
  const auto frame = frameDBusMessage(bytes);
  if (!frame) return Decoded::failure(frame.error());
  bytes = bytes.substr(0, frame->headerBytes);
  if (differsInNumbersOnly(known_, bytes)) {
    if (const char* const reason = readFixedPart(header_, bytes)) return Decoded::failure(malformed(reason));
    if (lacksSignature(header_, *frame)) return Decoded::failure(malformed(kLacksSignature));
    return header_;
  }
  known_.clear();
  if (bytes.size() > kMaximumKnownBytes) return decodeDBusHeader(bytes, limits);
  known_ = bytes;
  auto decoded = decodeDBusHeader(known_, limits);
  if (decoded) {
    header_ = *decoded;
  } else {
    known_.clear();
  }
  return decoded;
}

Result<Array, DBusFailure> decodeDBusBody(const DBusHeader& header, std::string_view body,
                                          const DBusLimits& limits, MemoryShare* memory) {
  using Decoded = Result<Array, DBusFailure>;
  const auto signature = DBusSignature::parse(header.signature);
  if (!signature) return Decoded::failure(malformed("the body's signature is none"));
  DBusReader reader(body, header.isSwapped, limits, memory);
  Array values;
  for (size_t at = 0; at < signature->text().size(); at = signature->endOfType(at)) {
    Value value;
    if (!reader.readValue(*signature, at, 0, value)) return Decoded::failure(reader.failure());
    values.append(std::move(value));
  }
  if (!reader.atEnd()) return Decoded::failure(malformed("its body is longer than its signature says"));
  return values;
}

}  // namespace zun
