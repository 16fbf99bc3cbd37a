#include "values/JSONReader.h"

#include <fmt/format.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <optional>
#include <vector>

namespace zun {

namespace {

constexpr size_t kMaximumDepth = 64;

/// Builds values from the reader's events; containers that are open wait on a stack.
class ValueBuilder final : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ValueBuilder> {
 public:
  bool Null() { return add(Value()); }
  bool Bool(bool value) { return add(value); }
  bool String(const char* text, rapidjson::SizeType length, bool) {
    return add(Value(std::string_view(text, length)));
  }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    containers_.back().key = Value(std::string_view(text, length));
    return true;
  }
  /// A number as it was written, so that none loses digits on the way.
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    const char* const end = text + length;
    const auto isWhole = [end](const std::from_chars_result& result) {
      return result.ec == std::errc() && result.ptr == end;
    };
    int64_t integer = 0;
    if (isWhole(std::from_chars(text, end, integer))) return add(integer);
    uint64_t positive = 0;
    if (isWhole(std::from_chars(text, end, positive))) return add(positive);
    double real = 0;
    return isWhole(std::from_chars(text, end, real)) ? add(real) : fail("a number out of range");
  }
  bool StartObject() { return open(true); }
  bool StartArray() { return open(false); }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool EndArray(rapidjson::SizeType) { return close(); }

  Value takeResult() { return std::move(result_); }
  const char* failure() const { return failure_; }

 private:
  struct Container {
    bool isDictionary;
    Dictionary dictionary;
    Array array;
    Value key;
  };

  bool fail(const char* why) {
    failure_ = why;
    return false;
  }

  bool open(bool isDictionary) {
    if (containers_.size() >= kMaximumDepth) return fail("nested too deep");
    containers_.push_back({.isDictionary = isDictionary, .dictionary = {}, .array = {}, .key = {}});
    return true;
  }

  bool close() {
    Container container = std::move(containers_.back());
    containers_.pop_back();
    return add(container.isDictionary ? Value(std::move(container.dictionary))
                                      : Value(std::move(container.array)));
  }

  bool add(Value value) {
    if (containers_.empty()) {
      result_ = std::move(value);
    } else if (Container& parent = containers_.back(); !parent.isDictionary) {
      parent.array.append(std::move(value));
    } else if (!value.isNone()) {
      parent.dictionary.set(std::move(parent.key), std::move(value));
    }
    return true;
  }

  std::vector<Container> containers_;
  Value result_;
  const char* failure_ = nullptr;
};

}  // namespace

Result<Value, std::string> parseJSON(std::string_view text) {
  using Outcome = Result<Value, std::string>;
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                              rapidjson::kParseNumbersAsStringsFlag;
  try {
    rapidjson::MemoryStream stream(text.data(), text.size());
    ValueBuilder builder;
    rapidjson::Reader reader;
    const auto outcome = reader.Parse<kFlags>(stream, builder);
    if (outcome.IsError()) {
      const char* const why =
          builder.failure() != nullptr ? builder.failure() : rapidjson::GetParseError_En(outcome.Code());
      return Outcome::failure(fmt::format("offset {}: {}", outcome.Offset(), why));
    }
    // The reader takes a NUL for the end of the text.
    if (stream.Tell() != text.size()) {
      return Outcome::failure(fmt::format("offset {}: text after the value", stream.Tell()));
    }
    return builder.takeResult();
  } catch (const std::exception&) {
    return Outcome::failure("not enough memory");
  }
}

}  // namespace zun
