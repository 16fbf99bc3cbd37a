#include "linux/dbus/DBusSignature.h"

namespace zun {

std::optional<DBusSignature> DBusSignature::parse(std::string_view text) {
  if (text.size() > kMaximumLength) return std::nullopt;
  DBusSignature signature(text);
  for (size_t position = 0; position < text.size();) {
    if (!signature.parseType(position, 0, 0)) return std::nullopt;
  }
  return signature;
}

bool DBusSignature::parseType(size_t& position, size_t arrayDepth, size_t structDepth) {
  if (position >= text_.size()) return false;
  const size_t start = position++;
  bool isValid = false;
  switch (text_[start]) {
    case 'a': isValid = parseArray(position, arrayDepth + 1, structDepth); break;
    case '(': isValid = parseStruct(position, arrayDepth, structDepth + 1); break;
    case 'v': isValid = true; break;
    default: isValid = isBasicDBusType(text_[start]); break;
  }
  ends_[start] = static_cast<uint8_t>(position);
  return isValid;
}

bool DBusSignature::parseArray(size_t& position, size_t arrayDepth, size_t structDepth) {
  if (arrayDepth > kMaximumArrayDepth || position >= text_.size()) return false;
  if (text_[position] != '{') return parseType(position, arrayDepth, structDepth);
  return parseDictionaryEntry(position, arrayDepth, structDepth + 1);
}

bool DBusSignature::parseStruct(size_t& position, size_t arrayDepth, size_t structDepth) {
  if (structDepth > kMaximumStructDepth) return false;
  do {
    if (!parseType(position, arrayDepth, structDepth)) return false;
  } while (position < text_.size() && text_[position] != ')');
  return position++ < text_.size();
}

bool DBusSignature::parseDictionaryEntry(size_t& position, size_t arrayDepth, size_t structDepth) {
  if (structDepth > kMaximumStructDepth) return false;
  const size_t start = position++;
  if (position >= text_.size() || !isBasicDBusType(text_[position])) return false;
  if (!parseType(position, arrayDepth, structDepth) || !parseType(position, arrayDepth, structDepth)) {
    return false;
  }
  if (position >= text_.size() || text_[position] != '}') return false;
  ends_[start] = static_cast<uint8_t>(++position);
  return true;
}

bool isBasicDBusType(char type) {
  switch (type) {
    case 'y':
    case 'b':
    case 'n':
    case 'q':
    case 'i':
    case 'u':
    case 'x':
    case 't':
    case 'd':
    case 's':
    case 'o':
    case 'g':
    case 'h': return true;
    default: return false;
  }
}

size_t alignmentOfDBusType(char type) {
  switch (type) {
    case 'n':
    case 'q': return 2;
    case 'b':
    case 'i':
    case 'u':
    case 'h':
    case 's':
    case 'o':
    case 'a': return 4;
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{': return 8;
    default: return 1;  // y, g, v
  }
}

size_t fixedSizeOfDBusType(char type) {
  switch (type) {
    case 'y': return 1;
    case 'n':
    case 'q': return 2;
    case 'b':
    case 'i':
    case 'u':
    case 'h': return 4;
    case 'x':
    case 't':
    case 'd': return 8;
    default: return 0;
  }
}

}  // namespace zun
