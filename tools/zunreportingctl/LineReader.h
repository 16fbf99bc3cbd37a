#pragma once

#include <cstdint>
#include <istream>
#include <string>

namespace zun {

/// Input by lines, numbered from 1; blank ones are skipped. A line longer than the daemon
/// takes as one message is not read into memory whole.
class LineReader final {
 public:
  static constexpr size_t kLongestLine = size_t{1} << 20;

  /// `input` outlives the reader.
  explicit LineReader(std::istream& input) : input_(input) {}

  /// False at the end.
  bool next();

  [[nodiscard]] const std::string& line() const { return line_; }
  /// The line is longer than kLongestLine, and was cut there.
  [[nodiscard]] bool isTooLong() const { return line_.size() > kLongestLine; }
  [[nodiscard]] uint64_t number() const { return number_; }

 private:
  bool readLine();

  std::istream& input_;
  std::string line_;
  uint64_t number_ = 0;
};

}  // namespace zun
