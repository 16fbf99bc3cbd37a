#include "platform/FileManager.h"

#include <fmt/format.h>

#include "values/URLText.h"
#include "values/UTF8.h"

namespace zun {

namespace {

constexpr std::string_view kScheme = "file:";

}  // namespace

std::string FileAttributes::description() const {
  return fmt::format("{{size = {}; modificationDate = {:.6f}; creationDate = {}; isDirectory = {}}}", size,
                     modificationDate.secondsSince1970,
                     creationDate ? fmt::format("{:.6f}", creationDate->secondsSince1970) : "(null)",
                     isDirectory);
}

std::string fileURLOfPath(std::string_view path) {
  constexpr std::string_view kPlain = "/-._~!$&'()*+,=:@";
  const std::string_view root = path.starts_with('/') ? "" : "/";
  return fmt::format("file://{}{}", root, percentEncoded(path, kPlain));
}

std::optional<std::string> pathOfFileURL(std::string_view url) {
  if (!equalsIgnoringASCIICase(url.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  std::string_view rest = url.substr(kScheme.size());
  rest = rest.substr(0, rest.find_first_of("?#"));
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::string_view host = rest.substr(0, rest.find('/'));
    if (!host.empty() && !equalsIgnoringASCIICase(host, "localhost")) return std::nullopt;
    rest.remove_prefix(host.size());
  }
  if (!rest.starts_with('/')) return std::nullopt;
  return percentDecoded(rest);
}

}  // namespace zun
