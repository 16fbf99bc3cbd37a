#include "harness/Row.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>

namespace zun::bench {

Row::~Row() {
  fmt::print("{}\n", text_);
  std::fflush(stdout);
}

void Row::add(const char* figure, double value) {
  text_ += fmt::format(" {}={:.6g}", figure, value);
}

void Row::addPercentiles(std::vector<std::chrono::nanoseconds> times, const std::string& prefix) {
  if (times.empty()) return;
  std::sort(times.begin(), times.end());
  const auto at = [&times](double part) {
    const auto place = static_cast<size_t>(part * static_cast<double>(times.size() - 1));
    return static_cast<double>(times[place].count()) / 1000;
  };
  add((prefix + "p50_us").c_str(), at(0.5));
  add((prefix + "p99_us").c_str(), at(0.99));
  add((prefix + "p99.9_us").c_str(), at(0.999));
  add((prefix + "max_us").c_str(), at(1));
}

Options parseOptions(int argc, char** argv, const char* description, const char* amountName,
                     uint64_t defaultAmount, const std::vector<std::string>& rows) {
  const auto built =
      std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path().parent_path();
  Options options{built / "src/daemon/zunreportingd", defaultAmount, {}};
  bool lists = false;
  CLI::App app(description);
  app.add_option("--daemon", options.daemon, "the program to measure")->capture_default_str();
  app.add_option(std::string("--") + amountName, options.amount)
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("rows", options.rows, "those to measure; all when none is named")
      ->check(CLI::IsMember(rows));
  app.add_flag("--list", lists, "print the rows there are");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? 0 : 2);
  }
  if (lists) {
    for (const std::string& row : rows) fmt::print("{}\n", row);
    std::exit(0);
  }
  if (access(options.daemon.c_str(), X_OK) != 0) {
    fmt::print(stderr, "{}: not built\n", options.daemon);
    std::exit(2);
  }
  if (options.rows.empty()) options.rows = rows;
  return options;
}

}  // namespace zun::bench
