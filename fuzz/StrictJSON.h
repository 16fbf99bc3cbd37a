#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A second reader of JSON (RFC 8259), which shares no code with the daemon's: what the
/// daemon writes must be JSON for others too.
class StrictJSON final {
 public:
  /// Whether `text` is one JSON text.
  [[nodiscard]] static bool accepts(std::string_view text) { return StrictJSON(text).isWhole(); }
  /// The keys of all objects, unescaped as far as plain ASCII goes; empty for no JSON.
  [[nodiscard]] static std::vector<std::string> keysOf(std::string_view text) {
    StrictJSON reader(text);
    return reader.isWhole() ? reader.keys_ : std::vector<std::string>();
  }

 private:
  explicit StrictJSON(std::string_view text) : rest_(text) {}

  bool isWhole() {
    const bool isValue = value(0);
    blanks();
    return isValue && rest_.empty();
  }

  void blanks() {
    const size_t end = rest_.find_first_not_of(" \t\r\n");
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end);
  }
  bool take(std::string_view token) {
    if (!rest_.starts_with(token)) return false;
    rest_.remove_prefix(token.size());
    return true;
  }
  bool takeAfterBlanks(std::string_view token) {
    blanks();
    return take(token);
  }

  bool value(int depth) {
    blanks();
    if (depth > 200 || rest_.empty()) return false;
    switch (rest_.front()) {
      case '{': return list(depth, '}', true);
      case '[': return list(depth, ']', false);
      case '"': return string(nullptr);
      default: return take("true") || take("false") || take("null") || number();
    }
  }

  bool list(int depth, char end, bool hasKeys) {
    const std::string_view closing(&end, 1);
    rest_.remove_prefix(1);
    if (takeAfterBlanks(closing)) return true;
    do {
      if (hasKeys) {
        blanks();
        if (!string(&keys_.emplace_back()) || !takeAfterBlanks(":")) return false;
      }
      if (!value(depth + 1)) return false;
    } while (takeAfterBlanks(","));
    return takeAfterBlanks(closing);
  }

  bool string(std::string* content) {
    if (!take("\"")) return false;
    while (!rest_.empty()) {
      const char character = rest_.front();
      rest_.remove_prefix(1);
      if (character == '"') return true;
      if (static_cast<unsigned char>(character) < 0x20) return false;
      if (character == '\\' && !escape()) return false;
      if (content != nullptr) *content += character;
    }
    return false;
  }
  bool escape() {
    if (rest_.empty()) return false;
    const char kind = rest_.front();
    rest_.remove_prefix(1);
    if (kind != 'u') return std::string_view("\"\\/bfnrt").find(kind) != std::string_view::npos;
    const bool isHex = rest_.size() >= 4 && rest_.substr(0, 4).find_first_not_of("0123456789abcdefABCDEF") ==
                                                std::string_view::npos;
    if (isHex) rest_.remove_prefix(4);
    return isHex;
  }

  bool digits() {
    const size_t count = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
    rest_.remove_prefix(count);
    return count > 0;
  }
  bool number() {
    take("-");
    if (!take("0") && !digits()) return false;
    if (take(".") && !digits()) return false;
    if (!take("e") && !take("E")) return true;
    if (!take("+")) take("-");
    return digits();
  }

  std::string_view rest_;
  std::vector<std::string> keys_;
};
