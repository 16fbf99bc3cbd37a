#include "MessageWriter.h"

#include <cerrno>

namespace zunreporting {

namespace {

/// Appends content of the type that `typeOf` names.
struct ContentWriter {
  sd_bus_message* message;

  int operator()(bool value) const { return sd_bus_message_append(message, "b", static_cast<int>(value)); }
  int operator()(int64_t value) const { return sd_bus_message_append(message, "x", value); }
  int operator()(uint64_t value) const { return sd_bus_message_append(message, "t", value); }
  int operator()(double value) const { return sd_bus_message_append(message, "d", value); }
  int operator()(const std::string& value) const { return appendString(message, value); }
  int operator()(const PropertyDate& value) const {
    return sd_bus_message_append(message, "(d)", value.secondsSince1970);
  }
  int operator()(const PropertyData& value) const { return appendData(message, value.bytes); }
  int operator()(const PropertyArray& value) const { return appendArray(message, value); }
  int operator()(const PropertyDictionary& value) const { return appendDictionary(message, value); }
};

const char* typeOf(const PropertyValue& value) {
  static constexpr const char* kTypes[] = {"b", "x", "t", "d", "s", "(d)", "ay", "av", "a{sv}"};
  return kTypes[value.content.index()];
}

}  // namespace

int appendString(sd_bus_message* message, const std::string& text) {
  // Texts of messages end at a NUL, so one that contains it would arrive cut.
  if (text.find('\0') != std::string::npos) return -EINVAL;
  return sd_bus_message_append(message, "s", text.c_str());
}

int appendStrings(sd_bus_message* message, const std::vector<std::string>& texts) {
  int result = sd_bus_message_open_container(message, 'a', "s");
  for (const std::string& text : texts) {
    if (result >= 0) result = appendString(message, text);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendData(sd_bus_message* message, std::string_view bytes) {
  return sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
}

int appendVariant(sd_bus_message* message, const PropertyValue& value) {
  int result = sd_bus_message_open_container(message, 'v', typeOf(value));
  if (result >= 0) result = std::visit(ContentWriter{message}, value.content);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendArray(sd_bus_message* message, const PropertyArray& array) {
  int result = sd_bus_message_open_container(message, 'a', "v");
  for (const PropertyValue& element : array) {
    if (result >= 0) result = appendVariant(message, element);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendDictionary(sd_bus_message* message, const PropertyDictionary& dictionary) {
  int result = sd_bus_message_open_container(message, 'a', "{sv}");
  for (const auto& [key, value] : dictionary) {
    if (result >= 0) result = sd_bus_message_open_container(message, 'e', "sv");
    if (result >= 0) result = appendString(message, key);
    if (result >= 0) result = appendVariant(message, value);
    if (result >= 0) result = sd_bus_message_close_container(message);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendOptionalDictionary(sd_bus_message* message, const std::optional<PropertyDictionary>& dictionary) {
  int result = sd_bus_message_open_container(message, 'a', "a{sv}");
  if (result >= 0 && dictionary) result = appendDictionary(message, *dictionary);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendOptionalVariant(sd_bus_message* message, const std::optional<PropertyValue>& value) {
  int result = sd_bus_message_open_container(message, 'a', "v");
  if (result >= 0 && value) result = appendVariant(message, *value);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

}  // namespace zunreporting
