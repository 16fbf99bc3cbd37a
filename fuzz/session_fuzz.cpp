// A client's calls in any order: into sessions with an HTTPS backend. Every call is answered
// once; what leaves goes to https, is JSON for others, and holds nothing that a filter removes.

#include <curl/curl.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "FuzzWorld.h"
#include "StrictJSON.h"
#include "session/ClientSessionObject.h"
#include "session/ReportingdSession.h"
#include "support/FakeConnection.h"
#include "unit/session/FakeAgent.h"
#include "values/GzipReader.h"
#include "values/JSONReader.h"
#include "values/UTF8.h"
#include "zunreporting/Keys.h"

namespace {

using zun::Array;
using zun::Dictionary;
using zun::Value;
using namespace zunreporting;

constexpr size_t kMostCalls = 40;
constexpr std::string_view kRemoved = "secret";

constexpr std::array kWords{kZunReportingSessionInfoSessionID,
                            kZunReportingSessionInfoClientType,
                            kZunReportingSessionInfoClientVersion,
                            kZunReportingSessionInfoHierarchyToken,
                            kZunReportingSessionInfoRequireUserInfo,
                            kZunReportingSessionInfoBatchEvent,
                            kZunReportingHierarchyTokenLevel,
                            kZunReportingHierarchyTokenTokenID,
                            kZunReportingUserInfoClientName,
                            kZunReportingUserInfoServiceName,
                            kZunReportingMessageParametersCategory,
                            kZunReportingMessageParametersType,
                            kZunReportingMessageParametersPayload,
                            kZunReportingMessageParametersFlag,
                            kRemoved,
                            std::string_view("hashed"),
                            std::string_view("listed"),
                            std::string_view("eventTime"),
                            std::string_view("_productFamily"),
                            std::string_view("a")};

std::string textOf(FuzzInput& input) {
  const uint8_t kind = input.byte();
  if (kind % 2 == 0) return std::string(kWords[kind / 2 % kWords.size()]);
  return zun::replacingInvalidUTF8(input.bytes(kind / 2));  // as the wire has it
}

Dictionary dictionaryOf(FuzzInput& input, int depth);

Value valueOf(FuzzInput& input, int depth) {
  switch (input.below(depth > 4 ? 7 : 9)) {
    case 0: return input.byte() % 2 == 0;
    case 1: return static_cast<int64_t>(input.byte());
    case 2: {
      int64_t number = 0;
      for (const char byte : input.bytes(8)) number = number << 8 | static_cast<uint8_t>(byte);
      return number;
    }
    case 3: return (input.byte() - 128) / 0.37e-9;
    case 4: return textOf(input);
    case 5: return Value::data(input.text());
    case 6: return zun::Date{static_cast<double>(input.byte()) * 1e7};
    case 7: {
      Array array;
      for (int count = input.below(5); count > 0; --count) array.append(valueOf(input, depth + 1));
      return array;
    }
    default: return dictionaryOf(input, depth + 1);
  }
}

Dictionary dictionaryOf(FuzzInput& input, int depth) {
  Dictionary dictionary;
  for (int count = input.below(7); count > 0; --count) {
    const std::string key = textOf(input);
    dictionary.set(key, valueOf(input, depth));
  }
  return dictionary;
}

Value argumentOf(std::string_view type, FuzzInput& input) {
  if (type == "a{sv}") return dictionaryOf(input, 0);
  if (type == "s") return textOf(input);
  if (type == "b") return input.byte() % 2 == 0;
  if (type == "q" || type == "i") return static_cast<int64_t>(input.byte()) * 257;
  if (type == "ay") return Value::data(input.text());
  Array array;  // of the element's type
  const bool isOptional = type.starts_with("aa");
  for (int count = input.below(isOptional ? 2 : 4); count > 0; --count) {
    array.append(type == "av" ? valueOf(input, 0) : argumentOf(type.substr(1), input));
  }
  return array;
}

class CountingSink final : public zun::ServiceReply::Sink {
 public:
  explicit CountingSink(std::shared_ptr<int> answers) : answers_(std::move(answers)) {}
  void sendReturn(const Array&, const Array*) override { ++*answers_; }
  void sendError(std::string_view, std::string_view) override { ++*answers_; }

 private:
  const std::shared_ptr<int> answers_;
};

Dictionary storebag(uint8_t kind) {
  const Dictionary entry{
      {"locale_whitelist", Array{"DE"}},
      {"filters",
       Array{Dictionary{{"key", kRemoved}, {"action", "remove"}},
             Dictionary{{"key", "hashed"}, {"action", "sha256"}},
             Dictionary{{"key", "listed"}, {"action", "whitelistValues"}, {"value", Array{"a", 1}}}}},
      {"sampling_threshold", kind % 4 == 3 ? 0.0 : 1.0},
      {"override_sampling", 1.0},
      {"override_dnu", 1},
      {"event_threshold", kind % 3 == 0 ? 1 : 3},
      {"use_wifi_only", kind % 2},
      {"post_url", kind % 5 == 4 ? "http://post.example/a" : "https://post.example/a"},
      {"realtime_post_url", "HTTPS://realtime.example"}};
  return {{kind % 7 == 6 ? kZunReportingBackendQRS : kZunReportingBackendHTTPPost,
           Dictionary{{"clients", Array{entry}}}},
          {kZunReportingBackendJoulex, Dictionary()}};
}

std::string bodyOf(const zun::URLRequest& request) {
  check(request.body != nullptr, "a post has a body");
  const auto isGzip = std::any_of(request.headers.begin(), request.headers.end(), [](const auto& header) {
    return header.first == "Content-Encoding" && header.second == "gzip";
  });
  if (!isGzip) return *request.body;
  std::string body;
  zun::GzipReader reader;
  const bool isGood = reader.feed(*request.body, [&body](std::string_view piece) {
    body += piece;
    return true;
  });
  check(isGood && reader.isAtTheEnd(), "a post's gzip is whole");
  return body;
}

void judge(const zun::URLRequest& request, bool isFiltered) {
  check(zun::equalsIgnoringASCIICase(request.url.substr(0, 8), "https://"), "a post goes to https");
  for (const auto& [name, value] : request.headers) {
    check(std::all_of(value.begin(), value.end(),
                      [](char each) { return static_cast<unsigned char>(each) >= 0x20 && each != 0x7F; }),
          "a header's value holds a control character");
  }
  const std::string body = bodyOf(request);
  check(zun::isValidUTF8(body) && StrictJSON::accepts(body), "a post is JSON");
  const auto json = zun::parseJSON(body);
  check(json && json->isDictionary(), "a post is an object");
  const Array* const events = (*json->dictionary())["events"].array();
  check(events != nullptr && !events->empty(), "a post has events");
  for (const Value& event : *events) {
    const Dictionary* const record = event.dictionary();
    check(record != nullptr, "a record is an object");
    if (!isFiltered) continue;
    check(!record->contains(kRemoved), "a filter's key is posted");
    const Value& hashed = (*record)["hashed"];
    check(!hashed.isString() || hashed.stringValue().size() == 64, "a value is posted that is to be hashed");
  }
}

/// Some sessions of one client, and what it does with them.
class Run final {
 public:
  Run(FuzzWorld& world, uint8_t kind) : world_(world) { agent_->storebag = storebag(kind); }
  ~Run() {
    objects_.clear();
    crank(200);
    agent_->invalidateHelpers();
    crank(200);
    world_.platform_.clock.advance(std::chrono::hours(24));
    world_.platform_.timers.fireDue();
    crank(0);
    agent_ = nullptr;
    crank(0);
    check(*answers_ == calls_, "every call is answered once");
  }

  void call(uint8_t command, FuzzInput& input) {
    constexpr size_t kMostSessions = 3;
    if (objects_.empty() || (command == 255 && objects_.size() < kMostSessions)) {
      const auto connection = std::make_shared<zun::FakeConnection>(std::map<std::string, bool>{});
      objects_.push_back(zun::makeClientSessionObject(
          zun::ReportingdSession::create(world_.reporting_, agent_, connection)));
    }
    const auto& members = zun::clientSessionInterface().members;
    const size_t member = command % members.size();
    Array arguments;
    for (const zun::ServiceArgument& argument : members[member].in)
      arguments.append(argumentOf(argument.type, input));
    const auto& in = members[member].in;
    if (!in.empty() && in[0].name == "sessionInfo") noteSessionInfo(*arguments[0].dictionary());
    ++calls_;
    objects_[command / members.size() % objects_.size()]->handleCall(
        member, arguments, zun::ServiceReply(std::make_unique<CountingSink>(answers_)));
  }

  /// Lets what waits happen; servers answer so.
  void crank(int32_t status) {
    world_.run();
    for (const zun::URLRequest& request : world_.urlSessions_.takeRequests()) judge(request, isFiltered_);
    world_.urlSessions_.answerAll(status);
    world_.run();
  }

 private:
  // Filters belong to what is chosen by user information: without it there are none.
  void noteSessionInfo(const Dictionary& info) {
    const Value& requiresUserInfo = info[kZunReportingSessionInfoRequireUserInfo];
    if (!requiresUserInfo.isNone() && !requiresUserInfo.boolValue()) isFiltered_ = false;
  }

  FuzzWorld& world_;
  std::shared_ptr<zun::FakeAgent> agent_ = std::make_shared<zun::FakeAgent>(world_.services_);
  std::vector<std::shared_ptr<zun::ExportedObject>> objects_;
  const std::shared_ptr<int> answers_ = std::make_shared<int>(0);
  int calls_ = 0;
  bool isFiltered_ = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto& world = *new FuzzWorld;
  FuzzInput input(data, size);
  Run run(world, input.byte());
  constexpr std::array<int32_t, 5> kStatuses{200, 503, 404, 0, 204};
  for (size_t call = 0; call < kMostCalls && !input.isAtTheEnd(); ++call) {
    const uint8_t command = input.byte();
    run.call(command, input);
    if (command % 4 == 0) run.crank(kStatuses[command / 4 % kStatuses.size()]);
  }
  return 0;
}
