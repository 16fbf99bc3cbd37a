#include "platform/TemporaryFiles.h"

namespace zun {

namespace {

bool isTemporaryName(std::string_view name) {
  constexpr std::string_view kPrefix = kTemporaryFileName.substr(0, kTemporaryFileName.find('X'));
  constexpr std::string_view kLettersAndDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  return name.size() == kTemporaryFileName.size() && name.starts_with(kPrefix) &&
         name.find_first_not_of(kLettersAndDigits, kPrefix.size()) == std::string_view::npos;
}

}  // namespace

void removeLeftovers(FileManager& files, const std::string& folder, std::optional<Date> end) {
  const auto names = files.listDirectory(folder);
  if (!names) return;
  for (const std::string& name : *names) {
    if (!isTemporaryName(name)) continue;
    const std::string path = folder + '/' + name;
    const auto attributes = files.attributes(path, Links::kNotFollowed);
    if (!attributes || !attributes->isRegularFile || !attributes->isOwn) continue;
    if (!end || attributes->modificationDate < *end) files.removeItem(path);
  }
}

}  // namespace zun
