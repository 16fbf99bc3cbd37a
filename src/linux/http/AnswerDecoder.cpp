#include "linux/http/AnswerDecoder.h"

#include <vector>

#include "values/TextParts.h"
#include "values/UTF8.h"

namespace zun {
namespace {

/// The elements of a comma-separated list, without the empty ones.
std::vector<std::string_view> elements(std::string_view list) {
  std::vector<std::string_view> found;
  for (const std::string_view part : partsSplitAtCommas(list)) {
    if (const std::string_view element = trimmed(part); !element.empty()) found.push_back(element);
  }
  return found;
}

/// A server's text, as an error may tell it.
std::string shown(std::string_view text) {
  constexpr size_t kMostBytes = 64;
  std::string copy(text.substr(0, kMostBytes));
  for (char& byte : copy) {
    if (byte < ' ' || byte > '~') byte = '?';
  }
  return copy;
}

}  // namespace

AnswerDecoder::AnswerDecoder(const URLResponse& response, bool decodes) {
  if (!decodes) return;
  const std::string list = response.headerList("Content-Encoding");
  const std::vector<std::string_view> codings = elements(list);
  if (codings.empty()) return;
  if (codings.size() > 1) {
    problem_ = "the body has several codings: " + shown(list);
  } else if (equalsIgnoringASCIICase(codings[0], "gzip") || equalsIgnoringASCIICase(codings[0], "x-gzip")) {
    gzip_.emplace();
  } else if (!equalsIgnoringASCIICase(codings[0], "identity")) {
    problem_ = "the body has a coding that was not asked for: " + shown(list);
  }
}

bool AnswerDecoder::take(std::string_view bytes, const GzipReader::Sink& sink) {
  if (!problem_.empty()) return false;
  if (!gzip_) return sink(bytes);
  bool isStopped = false;
  const bool isGood = gzip_->feed(bytes, [&](std::string_view piece) {
    isStopped = !sink(piece);
    return !isStopped;
  });
  if (!isGood && !isStopped)
    problem_ = gzip_->isAtTheEnd() ? "bytes follow the body's gzip stream" : "the body is no gzip stream";
  return isGood;
}

bool AnswerDecoder::isWhole() {
  if (!problem_.empty()) return false;
  if (!gzip_ || gzip_->isAtTheEnd()) return true;
  problem_ = "the body's gzip stream breaks off";
  return false;
}

std::optional<std::string> AnswerDecoder::transferProblem(const URLResponse& response) {
  const std::string list = response.headerList("Transfer-Encoding");
  if (list.empty() || equalsIgnoringASCIICase(list, "chunked")) return std::nullopt;
  return "the answer has a transfer coding that was not asked for: " + shown(list);
}

}  // namespace zun
