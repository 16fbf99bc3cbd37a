#include "util/FileMatching.h"

#include <regex.h>

#include <memory>

namespace zun {

void deleteMatchingItems(FileManager& files, const std::string& expression, LetterCase letterCase,
                         const std::string& folder) {
  const int flags = REG_EXTENDED | REG_NOSUB | (letterCase == LetterCase::kIgnored ? REG_ICASE : 0);
  regex_t compiled{};
  if (::regcomp(&compiled, expression.c_str(), flags) != 0) return;
  const std::unique_ptr<regex_t, decltype(&::regfree)> freeing(&compiled, ::regfree);
  for (const std::string& path : files.enumerateRecursively(folder)) {
    if (::regexec(&compiled, path.c_str(), 0, nullptr, 0) == 0) files.removeItem(folder + "/" + path);
  }
}

}  // namespace zun
