#include "StorebagStore.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>

namespace zun {

namespace {

constexpr const char* kHTTPDate = "%a, %d %b %Y %H:%M:%S GMT";

bool isPlainName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char character) {
    return std::isalnum(character) != 0 || character == '-' || character == '_';
  });
}

}  // namespace

std::string httpDate(int64_t secondsSince1970) {
  const time_t time = secondsSince1970;
  tm calendar{};
  gmtime_r(&time, &calendar);
  char text[64];
  return {text, std::strftime(text, sizeof text, kHTTPDate, &calendar)};
}

std::optional<int64_t> secondsOfHTTPDate(const std::string& date) {
  tm calendar{};
  const char* const end = strptime(date.c_str(), kHTTPDate, &calendar);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return timegm(&calendar);
}

StorebagAnswer StorebagStore::answer(const std::string& name,
                                     const std::optional<std::string>& ifModifiedSince) const {
  if (!isPlainName(name)) return {};
  const std::string path = folder_ + "/" + name;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};

  const std::string lastModified = httpDate(status.st_mtim.tv_sec);
  const auto since = ifModifiedSince ? secondsOfHTTPDate(*ifModifiedSince) : std::nullopt;
  if (since && status.st_mtim.tv_sec <= *since) {
    return {StorebagAnswer::Kind::kNotModified, {}, lastModified};
  }
  std::ifstream file(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file) return {};
  return {StorebagAnswer::Kind::kFile, std::move(bytes), lastModified};
}

}  // namespace zun
