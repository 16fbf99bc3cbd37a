// URLs of storebags, servers and clients: our reading of a text against that of the HTTP
// library, which goes where it reads.

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "platform/FileManager.h"
#include "values/URLText.h"
#include "values/UTF8.h"

namespace {

/// A URL as the HTTP library reads it.
class LibraryURL final {
 public:
  explicit LibraryURL(const std::string& text) : handle_(curl_url(), &curl_url_cleanup) {
    isGood_ = text.find('\0') == std::string::npos &&
              curl_url_set(handle_.get(), CURLUPART_URL, text.c_str(), 0) == CURLUE_OK;
  }
  [[nodiscard]] bool isGood() const { return isGood_; }
  [[nodiscard]] std::string part(CURLUPart which) const {
    char* text = nullptr;
    if (curl_url_get(handle_.get(), which, &text, 0) != CURLUE_OK) return "";
    const std::unique_ptr<char, void (*)(void*)> owner(text, &curl_free);
    return text;
  }

 private:
  const std::unique_ptr<CURLU, void (*)(CURLU*)> handle_;
  bool isGood_ = false;
};

void readURL(const std::string& text) {
  const LibraryURL library(text);
  if (!zun::isHTTPURL(text) || !library.isGood()) return;
  const std::string scheme = library.part(CURLUPART_SCHEME);
  check(scheme == "http" || scheme == "https", "the library reads another scheme");
  check(zun::equalsIgnoringASCIICase(std::string_view(text).substr(0, scheme.size()), scheme),
        "the library reads another scheme than is written");
  const std::string host = library.part(CURLUPART_HOST);
  check(!host.empty(), "the library reads no host");
  check(host.find_first_of(" \r\n\t") == std::string::npos, "the host holds a blank");
}

void encode(const std::string& text) {
  const std::string encoded = zun::percentEncodedForQuery(text);
  check(zun::isASCII(encoded) && encoded.find_first_of(" \"<>#\\^`{|}[]\r\n\t") == std::string::npos,
        "an encoded text holds what a query may not");
  const auto decoded = zun::percentDecoded(encoded);
  check(decoded.has_value() == (text.find('\0') == std::string::npos), "only a NUL is not decoded");
  check(!decoded || *decoded == text, "a text is decoded to another one");
  const LibraryURL library("https://host.example/path?name=" + encoded);
  check(library.isGood() && library.part(CURLUPART_HOST) == "host.example" &&
            library.part(CURLUPART_PATH) == "/path",
        "a query changes what stands before it");
  check(library.part(CURLUPART_QUERY) == "name=" + encoded, "the library reads another query");
}

void decode(const std::string& text) {
  const auto decoded = zun::percentDecoded(text);
  if (!decoded) return;
  check(decoded->size() <= text.size() && decoded->find('\0') == std::string::npos, "decoding adds nothing");
  int length = 0;
  const std::unique_ptr<char, void (*)(void*)> theirs(
      curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length), &curl_free);
  if (!text.empty())
    check(theirs && std::string(theirs.get(), length) == *decoded, "the library decodes otherwise");
}

void readFileURL(const std::string& text) {
  if (const auto path = zun::pathOfFileURL(text)) {
    check(path->starts_with('/') && path->find('\0') == std::string::npos, "a path is absolute");
    check(zun::pathOfFileURL(zun::fileURLOfPath(*path)) == path, "a path's URL names another path");
  }
  if (text.find('\0') == std::string::npos) {
    const std::string path = "/" + text;
    check(zun::pathOfFileURL(zun::fileURLOfPath(path)) == path, "a path's URL names another path");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  readURL(text);
  readURL("https://" + text);
  encode(text);
  decode(text);
  readFileURL(text);
  readFileURL("file://" + text);
  return 0;
}
