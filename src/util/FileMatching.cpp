#if defined(__GNUC__) && !defined(__clang__)
// With sanitizers, GCC 12 takes a union inside <regex> for uninitialized.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "util/FileMatching.h"

#include <exception>
#include <optional>
#include <regex>

namespace zun {

namespace {

// No path that the system accepts is longer.
constexpr size_t kLongestPath = 4096;
constexpr size_t kLongestExpression = 1024;

std::optional<std::regex> compile(const std::string& expression, LetterCase letterCase) {
  if (expression.size() > kLongestExpression) return std::nullopt;
  auto flags = std::regex::ECMAScript;
  if (letterCase == LetterCase::kIgnored) flags |= std::regex::icase;
#ifdef __GLIBCXX__
  // Breadth first: time is linear in the text, and no stack is used for its length.
  flags |= std::regex_constants::__polynomial;
#endif
  try {
    return std::regex(expression, flags);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool contains(const std::string& path, const std::regex& expression) {
  if (path.size() > kLongestPath) return false;
  try {
    return std::regex_search(path, expression);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

void deleteMatchingItems(FileManager& files, const std::string& expression, LetterCase letterCase,
                         const std::string& folder) {
  const auto compiled = compile(expression, letterCase);
  if (!compiled) return;
  for (const std::string& path : files.enumerateRecursively(folder)) {
    if (contains(path, *compiled)) files.removeItem(folder + "/" + path);
  }
}

}  // namespace zun
