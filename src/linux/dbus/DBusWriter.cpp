#include "linux/dbus/DBusWriter.h"

#include <bit>
#include <cstring>
#include <optional>

#include "linux/dbus/DBusNames.h"
#include "linux/dbus/DBusWire.h"

namespace zun {

namespace {

/// The type under which a variant holds `value`; null for none.
const char* variantSignature(const Value& value) {
  if (value.isBoolean()) return "b";
  if (value.isInteger()) return value.isAboveInt64() ? "t" : "x";
  if (value.isReal()) return "d";
  if (value.isString()) return "s";
  if (value.isData()) return "ay";
  if (value.isDate()) return "(d)";
  if (value.isArray()) return "av";
  if (value.isDictionary()) return "a{sv}";
  return nullptr;
}

/// Signatures of the few types that variants are given, parsed once.
const DBusSignature& parsedVariantSignature(const char* text) {
  static const DBusSignature array = *DBusSignature::parse("av");
  static const DBusSignature dictionary = *DBusSignature::parse("a{sv}");
  static const DBusSignature data = *DBusSignature::parse("ay");
  static const DBusSignature date = *DBusSignature::parse("(d)");
  if (text[0] == '(') return date;
  if (text[1] == 'v') return array;
  return text[1] == 'y' ? data : dictionary;
}

}  // namespace

bool DBusWriter::fail(DBusFailure::Kind kind, const char* reason) {
  failure_ = {kind, reason};
  return false;
}

void DBusWriter::align(size_t alignment) {
  out_.append(dbusPadding(position(), alignment), '\0');
}

template <typename Number>
void DBusWriter::writeNumber(Number number) {
  align(sizeof number);
  char bytes[sizeof number];
  std::memcpy(bytes, &number, sizeof number);
  out_.append(bytes, sizeof number);
}

template void DBusWriter::writeNumber(uint8_t);
template void DBusWriter::writeNumber(uint32_t);

void DBusWriter::patchUInt32(size_t position, size_t number) {
  const auto narrow = static_cast<uint32_t>(number);
  std::memcpy(out_.data() + base_ + position, &narrow, sizeof narrow);
}

void DBusWriter::writeText(std::string_view text) {
  writeNumber(static_cast<uint32_t>(text.size()));
  out_.append(text);
  out_ += '\0';
}

void DBusWriter::writeSignatureText(std::string_view text) {
  out_ += static_cast<char>(text.size());
  out_.append(text);
  out_ += '\0';
}

bool DBusWriter::writeTextOf(char type, const Value& value) {
  std::string replacement;
  std::string_view text = value.stringValue();
  if (!value.isString() && !value.isNone()) text = replacement = value.description();
  if (text.size() > limits_.maximumTextBytes) return fail(DBusFailure::Kind::kTooLarge, "a text is too long");
  if (type == 'g') {
    if (!DBusSignature::parse(text)) return fail(DBusFailure::Kind::kMalformed, "a value is no signature");
    writeSignatureText(text);
    return true;
  }
  if (type == 'o' && !isDBusObjectPath(text)) {
    return fail(DBusFailure::Kind::kMalformed, "a value is no object path");
  }
  if (!isDBusText(text)) text = replacement = asDBusText(text);
  writeText(text);
  return true;
}

bool DBusWriter::writeBasic(char type, const Value& value) {
  switch (type) {
    case 's':
    case 'o':
    case 'g': return writeTextOf(type, value);
    case 'b': writeNumber(static_cast<uint32_t>(value.boolValue())); return true;
    case 'd':
      writeNumber(
          std::bit_cast<uint64_t>(value.isDate() ? value.date()->secondsSince1970 : value.doubleValue()));
      return true;
    case 'y': writeNumber(static_cast<uint8_t>(value.intValue())); return true;
    case 'n':
    case 'q': writeNumber(static_cast<uint16_t>(value.intValue())); return true;
    case 'i':
    case 'u': writeNumber(static_cast<uint32_t>(value.intValue())); return true;
    case 'x':
    case 't': writeNumber(static_cast<uint64_t>(value.intValue())); return true;
    default: return fail(DBusFailure::Kind::kMalformed, "descriptors are not sent");
  }
}

bool DBusWriter::writeValue(const DBusSignature& signature, size_t at, size_t depth, const Value& value) {
  if (position() > limits_.maximumMessageBytes) {
    return fail(DBusFailure::Kind::kTooLarge, "the message is too large");
  }
  switch (signature[at]) {
    case 'v': return writeVariant(depth, value);
    case 'a': return writeArray(signature, at, depth, value);
    case '(': return writeStruct(signature, at, depth, value);
    default: return writeBasic(signature[at], value);
  }
}

bool DBusWriter::writeVariant(size_t depth, const Value& value) {
  const char* const text = variantSignature(value);
  if (text == nullptr) return fail(DBusFailure::Kind::kMalformed, "a variant has no value");
  writeSignatureText(text);
  if (text[1] == '\0') return writeBasic(text[0], value);
  return writeValue(parsedVariantSignature(text), 0, depth, value);
}

bool DBusWriter::writeArray(const DBusSignature& signature, size_t at, size_t depth, const Value& value) {
  if (depth >= limits_.maximumDepth)
    return fail(DBusFailure::Kind::kTooDeep, "its values are nested too deep");
  writeNumber(uint32_t{0});
  const size_t lengthAt = position() - sizeof(uint32_t);
  const char element = signature[at + 1];
  align(alignmentOfDBusType(element));
  const size_t start = position();
  if (element == 'y' && !value.isArray()) {
    out_.append(value.isString() ? value.stringValue() : value.dataValue());
  } else if (element == '{') {
    if (!writeEntries(signature, at + 1, depth + 1, value)) return false;
  } else if (!writeElements(signature, at + 1, depth + 1, value)) {
    return false;
  }
  patchUInt32(lengthAt, position() - start);
  return true;
}

bool DBusWriter::writeElements(const DBusSignature& signature, size_t at, size_t depth, const Value& value) {
  if (value.array() == nullptr) return true;
  for (const Value& element : *value.array()) {
    const bool isUnrepresentable = element.isNone() && signature[at] == 'v';
    if (!isUnrepresentable && !writeValue(signature, at, depth, element)) return false;
  }
  return true;
}

bool DBusWriter::writeEntries(const DBusSignature& signature, size_t at, size_t depth, const Value& value) {
  if (value.dictionary() == nullptr) return true;
  for (const auto& [key, content] : *value.dictionary()) {
    align(8);
    if (!writeBasic(signature[at + 1], key) || !writeValue(signature, at + 2, depth, content)) return false;
  }
  return true;
}

bool DBusWriter::writeStruct(const DBusSignature& signature, size_t at, size_t depth, const Value& value) {
  align(8);
  if (depth >= limits_.maximumDepth)
    return fail(DBusFailure::Kind::kTooDeep, "its values are nested too deep");
  const size_t end = signature.endOfType(at) - 1;
  const Array* const fields = value.array();
  size_t index = 0;
  for (size_t field = at + 1; field < end; field = signature.endOfType(field), ++index) {
    const Value& content = fields != nullptr ? (*fields)[index] : index == 0 ? value : Value::none();
    if (!writeValue(signature, field, depth + 1, content)) return false;
  }
  return true;
}

namespace {

/// Everything before the body, whose length is not known yet.
void writeHeader(DBusWriter& writer, std::string& out, const DBusHeader& header) {
  const char fixed[] = {kDBusNativeOrder, static_cast<char>(header.type), static_cast<char>(header.flags),
                        static_cast<char>(kDBusProtocolVersion)};
  out.append(fixed, sizeof fixed);
  writer.writeNumber(uint32_t{0});  // body length
  writer.writeNumber(header.serial);
  writer.writeNumber(uint32_t{0});  // length of the fields
  const auto beginField = [&writer](DBusField field, std::string_view type) {
    writer.align(8);
    writer.writeNumber(static_cast<uint8_t>(field));
    writer.writeSignatureText(type);
  };
  const auto writeField = [&](DBusField field, std::string_view type, std::string_view text) {
    if (text.empty()) return;
    beginField(field, type);
    writer.writeText(text);
  };
  writeField(DBusField::kPath, "o", header.path);
  writeField(DBusField::kInterface, "s", header.interface);
  writeField(DBusField::kMember, "s", header.member);
  writeField(DBusField::kErrorName, "s", header.errorName);
  if (header.replySerial != 0) {
    beginField(DBusField::kReplySerial, "u");
    writer.writeNumber(header.replySerial);
  }
  writeField(DBusField::kDestination, "s", header.destination);
  writeField(DBusField::kSender, "s", header.sender);
  if (!header.signature.empty()) {
    beginField(DBusField::kSignature, "g");
    writer.writeSignatureText(header.signature);
  }
  writer.patchUInt32(12, writer.position() - DBusFrame::kFixedBytes);
  writer.align(8);
}

/// None on success.
std::optional<DBusFailure> writeBody(DBusWriter& writer, std::string_view signatureText,
                                     const Array& values) {
  const auto signature = DBusSignature::parse(signatureText);
  if (!signature) return DBusFailure{DBusFailure::Kind::kMalformed, "the signature is none"};
  size_t index = 0;
  for (size_t at = 0; at < signatureText.size(); at = signature->endOfType(at), ++index) {
    if (!writer.writeValue(*signature, at, 0, values[index])) return writer.failure();
  }
  return std::nullopt;
}

/// Ends a message that began at `begin` and its body at `bodyAt`, or takes it back.
std::optional<DBusFailure> finishMessage(DBusWriter& writer, std::string& out, size_t begin, size_t bodyAt,
                                         std::optional<DBusFailure> failure, const DBusLimits& limits) {
  if (!failure && writer.position() > limits.maximumMessageBytes)
    failure = DBusFailure{DBusFailure::Kind::kTooLarge, "the message is too large"};
  if (failure) {
    out.resize(begin);
  } else {
    writer.patchUInt32(4, writer.position() - bodyAt);
  }
  return failure;
}

}  // namespace

std::optional<DBusFailure> appendDBusMessage(std::string& out, const DBusHeader& header, const Array& values,
                                             const DBusLimits& limits) {
  const size_t begin = out.size();
  DBusWriter writer(out, limits);
  writeHeader(writer, out, header);
  const size_t bodyAt = writer.position();
  auto failure = writeBody(writer, header.signature, values);
  return finishMessage(writer, out, begin, bodyAt, std::move(failure), limits);
}

Result<std::string, DBusFailure> encodeDBusBody(std::string_view signature, const Array& values,
                                                const DBusLimits& limits) {
  using Encoded = Result<std::string, DBusFailure>;
  std::string body;
  DBusWriter writer(body, limits);
  if (const auto failure = writeBody(writer, signature, values)) return Encoded::failure(*failure);
  return body;
}

std::optional<DBusFailure> appendDBusMessageOfBody(std::string& out, const DBusHeader& header,
                                                   std::string_view body, const DBusLimits& limits) {
  const size_t begin = out.size();
  DBusWriter writer(out, limits);
  writeHeader(writer, out, header);
  const size_t bodyAt = writer.position();
  out += body;
  return finishMessage(writer, out, begin, bodyAt, std::nullopt, limits);
}

}  // namespace zun
