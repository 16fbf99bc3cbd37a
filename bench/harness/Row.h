#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zun::bench {

/// One line of figures: "NAME FIGURE=VALUE FIGURE=VALUE...", printed with its end.
class Row final {
 public:
  explicit Row(std::string name) : text_(std::move(name)) {}
  ~Row();
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;

  void add(const char* figure, double value);
  /// p50, p99, p99.9 and the largest, in microseconds.
  void addPercentiles(std::vector<std::chrono::nanoseconds> times, const std::string& prefix = "");

 private:
  std::string text_;
};

/// What the command line of a benchmark says.
struct Options {
  std::string daemon;  // the program to measure
  uint64_t amount;
  std::vector<std::string> rows;
};

/// Ends the process after --help, --list and errors. Without rows named all of them are meant.
[[nodiscard]] Options parseOptions(int argc, char** argv, const char* description, const char* amountName,
                                   uint64_t defaultAmount, const std::vector<std::string>& rows);

}  // namespace zun::bench
