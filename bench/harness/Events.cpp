#include "harness/Events.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <random>

#include "linux/dbus/DBusMessage.h"
#include "values/Check.h"
#include "zunreporting/Keys.h"

namespace zun::bench {

namespace {

constexpr size_t kDistinct = 20'000;
constexpr size_t kWords = 3'000;
constexpr uint32_t kSeed = 20'261'122;

// Names as long as makes 179 bytes of JSON of a payload.
constexpr std::array<const char*, Events::kKeys> kNames = {"screen", "message", "action",  "count",
                                                           "load",   "seconds", "roaming", "radio"};
constexpr std::array<const char*, 3> kRadios = {"wifi", "cellular", "none"};

/// Draws what payloads are made of. Its own arithmetic: a library's distributions may change.
class Draw final {
 public:
  Draw() {
    words_.reserve(kWords);
    for (size_t i = 0; i < kWords; ++i) words_.push_back(newWord());
  }

  int64_t below(uint32_t bound) { return static_cast<int64_t>(engine_() % bound); }
  std::string text(int words) {
    std::string text = word();
    for (int i = 1; i < words; ++i) text += ' ' + word();
    return text;
  }
  Value value(size_t kind) {
    switch (kind) {
      case 0: return text(3);
      case 1: return text(5);
      case 2: return word();
      case 3: return below(1'000'000);
      case 4: return below(100);
      case 5: return static_cast<double>(below(100'000)) / 1000;
      case 6: return Value(below(2) == 1);
      default: return kRadios[static_cast<size_t>(below(kRadios.size()))];
    }
  }

 private:
  std::string newWord() {
    std::string word(static_cast<size_t>(3 + below(8)), ' ');
    for (char& letter : word) letter = static_cast<char>('a' + below(26));
    return word;
  }
  const std::string& word() { return words_[static_cast<size_t>(below(kWords))]; }

  std::mt19937 engine_{kSeed};
  std::vector<std::string> words_;
};

std::string nameOf(size_t key) {
  const std::string name = kNames[key % kNames.size()];
  return key < kNames.size() ? name : fmt::format("{}{}", name, key / kNames.size());
}

}  // namespace

std::string sessionCall(std::string_view member, std::string_view signature, const Array& arguments) {
  DBusHeader header;
  header.serial = 1;
  header.path = "/com/vantix/zunreportingd/session";
  header.interface = "com.vantix.zunreportingd.ClientSessionInterface";
  header.member = member;
  header.signature = signature;
  std::string message;
  ZUN_CHECK(!appendDBusMessage(message, header, arguments));
  return message;
}

Events::Events(size_t keys) {
  using namespace zunreporting;
  const size_t distinct = kDistinct * kKeys / std::max(keys, kKeys);
  Draw draw;
  payloads_.reserve(distinct);
  calls_.reserve(distinct);
  for (size_t i = 0; i < distinct; ++i) {
    Dictionary payload;
    for (size_t key = 0; key < keys; ++key) payload.set(nameOf(key), draw.value(key % kKeys));
    const Dictionary message{{kZunReportingMessageParametersCategory, 3},
                             {kZunReportingMessageParametersType, 17},
                             {kZunReportingMessageParametersPayload, payload}};
    calls_.push_back(sessionCall("sendMessageWithDictionary", "a{sv}", Array{message}));
    payloads_.push_back(std::move(payload));
  }
}

}  // namespace zun::bench
