#include "MessageReader.h"

#include <cerrno>
#include <cstring>
#include <functional>

namespace zunreporting {

namespace {

/// The daemon takes and sends 32 levels; each of a value's is a container and its variant.
constexpr int kDeepest = 64;

int readContent(sd_bus_message* message, int depth, PropertyValue& value);

/// Reads every element of the container that `type` and `contents` name. A container
/// that is not there is an error.
int readElements(sd_bus_message* message, char type, const char* contents,
                 const std::function<int()>& readElement) {
  int result = sd_bus_message_enter_container(message, type, contents);
  if (result == 0) return -EBADMSG;
  if (result < 0) return result;
  while ((result = sd_bus_message_at_end(message, 0)) == 0) {
    result = readElement();
    if (result < 0) return result;
  }
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

/// A container of zero or one element; more than one is an error.
int readOptional(sd_bus_message* message, const char* contents, const std::function<int()>& readElement) {
  int elements = 0;
  return readElements(message, 'a', contents, [&] { return ++elements > 1 ? -EBADMSG : readElement(); });
}

template <typename Wire, typename Held>
int readBasic(sd_bus_message* message, char type, PropertyValue& value) {
  Wire wire{};
  const int result = sd_bus_message_read_basic(message, type, &wire);
  if (result == 0) return -EBADMSG;
  if (result > 0) value = PropertyValue(Held(wire));
  return result;
}

int readDataValue(sd_bus_message* message, PropertyValue& value) {
  PropertyData data;
  const int result = readData(message, data.bytes);
  if (result >= 0) value = std::move(data);
  return result;
}

int readDictionaryOf(sd_bus_message* message, const char* entry, int depth, PropertyDictionary& dictionary) {
  // "{sv}" is the array's element, "sv" what is in an entry.
  const std::string inEntry(entry + 1, std::strlen(entry) - 2);
  if (inEntry[0] != 's') return -EBADMSG;
  return readElements(message, 'a', entry, [&] {
    std::string key;
    PropertyValue value(false);
    int result = sd_bus_message_enter_container(message, 'e', inEntry.c_str());
    if (result >= 0) result = readString(message, key);
    if (result >= 0) result = readContent(message, depth + 1, value);
    if (result < 0) return result;
    dictionary.emplace_back(std::move(key), std::move(value));
    return sd_bus_message_exit_container(message);
  });
}

int readArrayOf(sd_bus_message* message, char type, const char* contents, int depth, PropertyValue& value) {
  PropertyArray array;
  const int result = readElements(message, type, contents, [&] {
    PropertyValue element(false);
    const int read = readContent(message, depth + 1, element);
    if (read >= 0) array.push_back(std::move(element));
    return read;
  });
  if (result >= 0) value = std::move(array);
  return result;
}

int readDate(sd_bus_message* message, PropertyValue& value) {
  PropertyDate date;
  const int result = sd_bus_message_read(message, "(d)", &date.secondsSince1970);
  if (result >= 0) value = date;
  return result;
}

int readArray(sd_bus_message* message, const char* element, int depth, PropertyValue& value) {
  if (std::strcmp(element, "y") == 0) return readDataValue(message, value);
  if (element[0] != '{') return readArrayOf(message, 'a', element, depth, value);
  PropertyDictionary dictionary;
  const int result = readDictionaryOf(message, element, depth, dictionary);
  if (result >= 0) value = std::move(dictionary);
  return result;
}

int readInVariant(sd_bus_message* message, const char* contents, int depth, PropertyValue& value) {
  int result = sd_bus_message_enter_container(message, 'v', contents);
  if (result >= 0) result = readContent(message, depth + 1, value);
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

int readContent(sd_bus_message* message, int depth, PropertyValue& value) {
  if (depth > kDeepest) return -EBADMSG;
  char type = 0;
  const char* contents = nullptr;
  const int result = sd_bus_message_peek_type(message, &type, &contents);
  if (result <= 0) return result < 0 ? result : -EBADMSG;
  switch (type) {
    case 'v': return readInVariant(message, contents, depth, value);
    case 'a': return readArray(message, contents, depth, value);
    case 'r':
      if (std::strcmp(contents, "d") == 0) return readDate(message, value);
      return readArrayOf(message, type, contents, depth, value);
    case 'b': return readBasic<int, bool>(message, type, value);
    case 'y': return readBasic<uint8_t, int64_t>(message, type, value);
    case 'n': return readBasic<int16_t, int64_t>(message, type, value);
    case 'q': return readBasic<uint16_t, int64_t>(message, type, value);
    case 'i': return readBasic<int32_t, int64_t>(message, type, value);
    case 'u': return readBasic<uint32_t, int64_t>(message, type, value);
    case 'x': return readBasic<int64_t, int64_t>(message, type, value);
    case 't': return readBasic<uint64_t, uint64_t>(message, type, value);
    case 'd': return readBasic<double, double>(message, type, value);
    case 's':
    case 'o':
    case 'g': return readBasic<const char*, std::string>(message, type, value);
    default: return -EBADMSG;
  }
}

}  // namespace

int readVariant(sd_bus_message* message, PropertyValue& value) {
  char type = 0;
  const int result = sd_bus_message_peek_type(message, &type, nullptr);
  if (result < 0) return result;
  return type == 'v' ? readContent(message, 0, value) : -EBADMSG;
}

int readDictionary(sd_bus_message* message, PropertyDictionary& dictionary) {
  return readDictionaryOf(message, "{sv}", 0, dictionary);
}

int readOptionalDictionary(sd_bus_message* message, std::optional<PropertyDictionary>& dictionary) {
  return readOptional(message, "a{sv}", [&] { return readDictionary(message, dictionary.emplace()); });
}

int readOptionalString(sd_bus_message* message, std::optional<std::string>& text) {
  return readOptional(message, "s", [&] { return readString(message, text.emplace()); });
}

int readOptionalStrings(sd_bus_message* message, std::optional<std::vector<std::string>>& texts) {
  return readOptional(message, "as", [&] {
    texts.emplace();
    return readElements(message, 'a', "s", [&] { return readString(message, texts->emplace_back()); });
  });
}

int readOptionalError(sd_bus_message* message, std::optional<std::string>& text) {
  return readOptional(message, "(sis)", [&] {
    const char* domain = nullptr;
    const char* description = nullptr;
    int32_t code = 0;
    const int result = sd_bus_message_read(message, "(sis)", &domain, &code, &description);
    if (result > 0) text = std::string(description) + " (" + std::to_string(code) + ")";
    return result;
  });
}

int readString(sd_bus_message* message, std::string& text) {
  const char* content = nullptr;
  const int result = sd_bus_message_read_basic(message, 's', &content);
  if (result == 0) return -EBADMSG;
  if (result > 0) text = content;
  return result;
}

int readBoolean(sd_bus_message* message, bool& value) {
  int content = 0;
  const int result = sd_bus_message_read_basic(message, 'b', &content);
  if (result == 0) return -EBADMSG;
  value = content != 0;
  return result;
}

int readData(sd_bus_message* message, std::string& bytes) {
  const void* content = nullptr;
  size_t size = 0;
  const int result = sd_bus_message_read_array(message, 'y', &content, &size);
  if (result == 0) return -EBADMSG;
  if (result > 0 && size > 0) bytes.assign(static_cast<const char*>(content), size);
  return result;
}

}  // namespace zunreporting
