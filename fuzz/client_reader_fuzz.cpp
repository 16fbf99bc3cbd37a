// What a daemon that has gone wrong can send to a client: answers and messages that sd-bus
// takes, read by the client library. Whatever is read can be written again, and reads the
// same.

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "MessageReader.h"
#include "MessageWriter.h"

namespace {

using namespace zunreporting;

struct BusClosing {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct MessageLetGo {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageLetGo>;

template <typename Number>
void append(std::string& out, Number number) {
  out.resize((out.size() + sizeof number - 1) / sizeof number * sizeof number);
  out.append(reinterpret_cast<const char*>(&number), sizeof number);
}

void appendField(std::string& out, uint8_t code, char type, std::string_view text) {
  out.resize((out.size() + 7) / 8 * 8);
  out += {static_cast<char>(code), 1, type, 0};
  if (type == 'g') {
    out += static_cast<char>(text.size());
  } else {
    append(out, static_cast<uint32_t>(text.size()));
  }
  (out += text) += '\0';
}

/// A call of this machine's byte order with that body.
std::string callWith(std::string_view signature, std::string_view body) {
  std::string fields;
  appendField(fields, 1, 'o', "/a");
  appendField(fields, 3, 's', "A");
  if (!signature.empty()) appendField(fields, 8, 'g', signature);
  std::string message{'l', 1, 0, 1};
  append(message, static_cast<uint32_t>(body.size()));
  append(message, uint32_t{1});
  append(message, static_cast<uint32_t>(fields.size()));
  message += fields;
  message.resize((message.size() + 7) / 8 * 8);
  return message.append(body);
}

/// A bus, and its other end, which has sent `bytes` after a successful authentication.
class ReceivingBus final {
 public:
  explicit ReceivingBus(const std::string& bytes) {
    int ends[2] = {-1, -1};
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0, "socket pair");
    otherEnd_ = ends[1];
    const std::string all = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n" + bytes;
    check(::send(otherEnd_, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size()), "send");
    sd_bus* made = nullptr;
    check(sd_bus_new(&made) >= 0, "bus");
    bus_.reset(made);
    check(sd_bus_set_fd(made, ends[0], ends[0]) >= 0 && sd_bus_start(made) >= 0, "start");
  }
  ~ReceivingBus() { ::close(otherEnd_); }
  ReceivingBus(const ReceivingBus&) = delete;
  ReceivingBus& operator=(const ReceivingBus&) = delete;

  [[nodiscard]] sd_bus* get() const { return bus_.get(); }

 private:
  std::unique_ptr<sd_bus, BusClosing> bus_;
  int otherEnd_ = -1;
};

Message received(sd_bus* bus) {
  for (int step = 0; step < 20; ++step) {
    sd_bus_message* message = nullptr;
    const int result = sd_bus_process(bus, &message);
    if (message != nullptr) return Message(message);
    if (result < 0) break;
  }
  return nullptr;
}

template <typename Content, typename Read>
std::optional<Content> readWith(sd_bus_message* message, Read read) {
  check(sd_bus_message_rewind(message, 1) >= 0, "rewind");
  Content content{};
  if (read(message, content) < 0) return std::nullopt;
  return content;
}

size_t depthOf(const PropertyValue& value) {
  size_t deepest = 0;
  if (const auto* const array = std::get_if<PropertyArray>(&value.content)) {
    for (const PropertyValue& element : *array) deepest = std::max(deepest, 1 + depthOf(element));
  } else if (const auto* const dictionary = std::get_if<PropertyDictionary>(&value.content)) {
    for (const auto& [key, element] : *dictionary) deepest = std::max(deepest, 1 + depthOf(element));
  }
  return deepest;
}

/// What was read can be written, and reads as it was written.
void write(sd_bus* bus, const PropertyDictionary& dictionary) {
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(bus, &made, nullptr, "/a", nullptr, "A") >= 0, "new message");
  const Message message(made);
  // A list of texts becomes one of variants: what was deep may be too deep for a message.
  if (appendDictionary(made, dictionary) < 0)
    return check(depthOf(dictionary) > 20, "what was read is not written");
  check(sd_bus_message_seal(made, 1, 0) >= 0, "seal");
  const auto again = readWith<PropertyDictionary>(made, &readDictionary);
  check(again.has_value() && again->size() == dictionary.size(), "what was written is not read");
  for (size_t i = 0; i < again->size(); ++i) {
    check((*again)[i].first == dictionary[i].first, "another key is read");
    check((*again)[i].second.content.index() == dictionary[i].second.content.index(), "another kind is read");
  }
}

void readAll(sd_bus* bus, sd_bus_message* message) {
  PropertyValue none(false);
  static_cast<void>(sd_bus_message_rewind(message, 1));
  if (readVariant(message, none) >= 0) check(depthOf(none) <= 64, "deeper than any message");
  if (const auto dictionary = readWith<PropertyDictionary>(message, &readDictionary)) {
    check(depthOf(PropertyValue(*dictionary)) <= 65, "deeper than any message");
    write(bus, *dictionary);
  }
  static_cast<void>(readWith<std::optional<PropertyDictionary>>(message, &readOptionalDictionary));
  static_cast<void>(readWith<std::optional<std::string>>(message, &readOptionalString));
  static_cast<void>(readWith<std::optional<std::vector<std::string>>>(message, &readOptionalStrings));
  static_cast<void>(readWith<std::optional<std::string>>(message, &readOptionalError));
  static_cast<void>(readWith<std::string>(message, &readString));
  static_cast<void>(readWith<bool>(message, &readBoolean));
  static_cast<void>(readWith<std::string>(message, &readData));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 20'000) return 0;
  constexpr std::array kUsual{"a{sv}", "v", "aa{sv}", "as", "aas", "a(sis)", "ay", "s", "b"};
  FuzzInput input(data, size);
  const uint8_t kind = input.byte();
  const std::string_view own = kind < 128 ? input.text() : std::string_view();
  const std::string_view signature = kind < 128 ? own : kUsual[kind % kUsual.size()];
  const ReceivingBus bus(callWith(signature, input.rest()));
  if (const Message message = received(bus.get())) readAll(bus.get(), message.get());
  return 0;
}
