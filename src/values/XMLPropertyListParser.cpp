#include <expat.h>
#include <fmt/format.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "values/Base64.h"
#include "values/PropertyListForms.h"
#include "values/UTF8.h"

namespace zun {

namespace {

enum class Element {
  kPlist,
  kDictionary,
  kArray,
  kKey,
  kString,
  kInteger,
  kReal,
  kTrue,
  kFalse,
  kDate,
  kData,
};

std::optional<Element> elementOfName(std::string_view name) {
  struct Entry {
    std::string_view name;
    Element element;
  };
  constexpr std::array<Entry, 11> kElements{{
      {"key", Element::kKey},
      {"string", Element::kString},
      {"integer", Element::kInteger},
      {"dict", Element::kDictionary},
      {"array", Element::kArray},
      {"true", Element::kTrue},
      {"false", Element::kFalse},
      {"real", Element::kReal},
      {"date", Element::kDate},
      {"data", Element::kData},
      {"plist", Element::kPlist},
  }};
  for (const Entry& entry : kElements) {
    if (entry.name == name) return entry.element;
  }
  return std::nullopt;
}

constexpr std::string_view kBlanks = " \t\r\n";

/// The number that all of `text` is.
template <typename Number, typename... Format>
std::optional<Number> wholeNumber(std::string_view text, Format... format) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, format...);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<Value> integerOfText(std::string_view text) {
  text = trimmed(text);
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (isHexadecimal) text.remove_prefix(2);
  const auto magnitude = wholeNumber<uint64_t>(text, isHexadecimal ? 16 : 10);
  if (!magnitude) return std::nullopt;
  if (!isNegative) return Value(*magnitude);
  constexpr uint64_t kLargestNegative = uint64_t{1} << 63;
  if (*magnitude > kLargestNegative) return std::nullopt;
  return Value(static_cast<int64_t>(0 - *magnitude));
}

std::optional<Value> realOfText(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('+')) text.remove_prefix(1);
  if (text.starts_with("+") || text.starts_with("--")) return std::nullopt;
  const auto number = wholeNumber<double>(text);
  return number ? std::optional(Value(*number)) : std::nullopt;
}

/// ISO 8601 as property lists write it: 2024-02-29T23:59:60Z, with a fraction of a
/// second for those who have one.
std::optional<Value> dateOfText(std::string_view text) {
  text = trimmed(text);
  constexpr std::string_view kPattern = "0000-00-00T00:00:00";
  if (text.size() <= kPattern.size() || !text.ends_with('Z')) return std::nullopt;
  text.remove_suffix(1);
  for (size_t i = 0; i < kPattern.size(); ++i) {
    const bool isDigit = text[i] >= '0' && text[i] <= '9';
    if (kPattern[i] == '0' ? !isDigit : text[i] != kPattern[i]) return std::nullopt;
  }
  const auto field = [text](size_t start, size_t length) {
    return wholeNumber<int>(text.substr(start, length)).value_or(0);
  };
  const std::chrono::year_month_day day{std::chrono::year(field(0, 4)),
                                        std::chrono::month(static_cast<unsigned>(field(5, 2))),
                                        std::chrono::day(static_cast<unsigned>(field(8, 2)))};
  const int hour = field(11, 2);
  const int minute = field(14, 2);
  const int second = field(17, 2);
  if (!day.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  double fraction = 0;
  if (const std::string_view rest = text.substr(kPattern.size()); !rest.empty()) {
    if (rest.front() != '.' || rest.size() < 2) return std::nullopt;
    const auto digits = wholeNumber<double>(rest, std::chars_format::fixed);
    if (!digits) return std::nullopt;
    fraction = *digits;
  }
  const auto days = std::chrono::sys_days(day).time_since_epoch().count();
  const int64_t seconds = ((int64_t{days} * 24 + hour) * 60 + minute) * 60 + second;
  return Value(Date{static_cast<double>(seconds) + fraction});
}

std::optional<Value> valueOfText(Element element, const std::string& text) {
  switch (element) {
    case Element::kKey:
    case Element::kString: return Value(text);
    case Element::kInteger: return integerOfText(text);
    case Element::kReal: return realOfText(text);
    case Element::kDate: return dateOfText(text);
    case Element::kTrue: return Value(true);
    case Element::kFalse: return Value(false);
    case Element::kData: {
      const auto bytes = base64Decode(text);
      return bytes ? std::optional(Value::data(*bytes)) : std::nullopt;
    }
    default: return std::nullopt;
  }
}

/// One pass over a document. Expat calls back as elements begin and end; containers
/// that are open wait on a stack, so no nesting of the input becomes ours.
///
/// Declarations of any kind inside the document are refused: nothing a property list
/// needs is there, and entities or default attributes make small input large work.
class XMLParser final {
 public:
  explicit XMLParser(const PropertyListLimits& limits) : limits_(limits) {}

  Result<Value, std::string> parse(std::string_view bytes) {
    using Outcome = Result<Value, std::string>;
    using Handle = std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)>;
    const Handle parser(XML_ParserCreate(nullptr), &XML_ParserFree);
    if (parser == nullptr) return Outcome::failure("not enough memory");
    if (bytes.size() > size_t{std::numeric_limits<int>::max()}) return Outcome::failure("too large");
    parser_ = parser.get();
    install();
    // All at once: a parser fed in pieces scans a long token again with each of them.
    const auto status = XML_Parse(parser_, bytes.data(), static_cast<int>(bytes.size()), XML_TRUE);
    const auto line = XML_GetCurrentLineNumber(parser_);
    if (failure_ != nullptr) return Outcome::failure(fmt::format("line {}: {}", line, failure_));
    if (status != XML_STATUS_OK) {
      return Outcome::failure(fmt::format("line {}: {}", line, XML_ErrorString(XML_GetErrorCode(parser_))));
    }
    if (!result_) return Outcome::failure("no value");
    return std::move(*result_);
  }

 private:
  struct Container {
    Element element;
    Dictionary dictionary;
    Array array;
    std::optional<Value> key;
  };

  static XMLParser& self(void* user) { return *static_cast<XMLParser*>(user); }

  /// Runs a callback; nothing may be thrown through Expat.
  template <typename Operation>
  static void guard(void* user, Operation operation) {
    XMLParser& parser = self(user);
    if (parser.failure_ != nullptr) return;
    try {
      operation(parser);
    } catch (const std::exception&) {
      parser.fail("not enough memory");
    }
  }

  void install() {
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(
        parser_,
        [](void* user, const XML_Char* name, const XML_Char**) {
          guard(user, [name](XMLParser& parser) { parser.begin(name); });
        },
        [](void* user, const XML_Char*) { guard(user, [](XMLParser& parser) { parser.end(); }); });
    XML_SetCharacterDataHandler(parser_, [](void* user, const XML_Char* text, int length) {
      guard(user, [text, length](XMLParser& parser) { parser.text({text, static_cast<size_t>(length)}); });
    });
    XML_SetStartDoctypeDeclHandler(
        parser_, [](void* user, const XML_Char*, const XML_Char*, const XML_Char*, int hasDeclarations) {
          if (hasDeclarations != 0) self(user).fail("declarations are not accepted");
        });
    XML_SetEntityDeclHandler(parser_, [](void* user, const XML_Char*, int, const XML_Char*, int,
                                         const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*) {
      self(user).fail("entity declarations are not accepted");
    });
    // With an external document type, unknown entities are no error of the syntax.
    XML_SetSkippedEntityHandler(parser_,
                                [](void* user, const XML_Char*, int) { self(user).fail("unknown entity"); });
  }

  void fail(const char* why) {
    if (failure_ == nullptr) failure_ = why;
    XML_StopParser(parser_, XML_FALSE);
  }

  void begin(const char* name) {
    const auto element = elementOfName(name);
    if (!element) return fail("unknown element");
    if (leaf_) return fail("an element inside a simple value");
    if (*element == Element::kPlist) {
      if (hasStarted_) return fail("<plist> is not the outermost element");
      hasStarted_ = true;
      return;
    }
    hasStarted_ = true;
    if (containers_.empty() && result_) return fail("more than one value");
    if (*element == Element::kKey) {
      if (containers_.empty() || containers_.back().element != Element::kDictionary) {
        return fail("<key> outside of <dict>");
      }
      if (containers_.back().key) return fail("a key without a value");
    } else if (!containers_.empty() && containers_.back().element == Element::kDictionary &&
               !containers_.back().key) {
      return fail("a value without a key");
    }
    if (++values_ > limits_.maximumValues) return fail("too many values");
    if (*element == Element::kDictionary || *element == Element::kArray) {
      if (containers_.size() >= limits_.maximumDepth) return fail("nested too deep");
      containers_.push_back({.element = *element, .dictionary = {}, .array = {}, .key = {}});
    } else {
      leaf_ = element;
      text_.clear();
    }
  }

  void text(std::string_view piece) {
    if (leaf_ && *leaf_ != Element::kTrue && *leaf_ != Element::kFalse) {
      text_ += piece;
    } else if (piece.find_first_not_of(kBlanks) != std::string_view::npos) {
      fail("text outside of a value");
    }
  }

  void end() {
    if (leaf_) {
      const Element element = *leaf_;
      leaf_.reset();
      auto value = valueOfText(element, text_);
      if (!value) return fail(failureOfText(element));
      if (element == Element::kKey) {
        containers_.back().key = std::move(*value);
        return;
      }
      add(std::move(*value));
      return;
    }
    if (containers_.empty()) return;  // </plist>
    Container container = std::move(containers_.back());
    containers_.pop_back();
    if (container.key) return fail("a key without a value");
    if (container.element == Element::kArray) {
      add(std::move(container.array));
    } else {
      add(std::move(container.dictionary));
    }
  }

  static const char* failureOfText(Element element) {
    switch (element) {
      case Element::kInteger: return "not an integer";
      case Element::kReal: return "not a number";
      case Element::kDate: return "not a date";
      default: return "not Base64";
    }
  }

  void add(Value value) {
    if (containers_.empty()) {
      result_ = std::move(value);
      return;
    }
    Container& parent = containers_.back();
    if (parent.element == Element::kArray) {
      parent.array.append(std::move(value));
    } else {
      parent.dictionary.set(std::move(*parent.key), std::move(value));
      parent.key.reset();
    }
  }

  const PropertyListLimits& limits_;
  XML_Parser parser_ = nullptr;
  std::vector<Container> containers_;
  std::optional<Element> leaf_;  // the simple value that is open
  std::string text_;             // its text so far
  size_t values_ = 0;
  bool hasStarted_ = false;
  std::optional<Value> result_;
  const char* failure_ = nullptr;
};

}  // namespace

Result<Value, std::string> parseXMLPropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  return XMLParser(limits).parse(bytes);
}

}  // namespace zun
