#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/URLSession.h"
#include "values/GzipReader.h"

namespace zun {

/// What the bytes of one answer's body mean: they themselves, or what one gzip stream
/// holds. Codings beyond that one are refused, since each multiplies the work that a byte
/// makes.
///
///   made ──take ...──▶ isWhole        (a refusal or a problem is final)
///
/// Threading: one thread.
class AnswerDecoder final {
 public:
  /// `decodes`: whether the coding was asked for by us. A request that asks by itself
  /// gets the bytes as they come.
  AnswerDecoder(const URLResponse& response, bool decodes);

  /// Hands what `bytes` mean piecewise to `sink`. False when there is a problem or the
  /// sink has stopped.
  [[nodiscard]] bool take(std::string_view bytes, const GzipReader::Sink& sink);
  /// False when the body must not end here.
  [[nodiscard]] bool isWhole();
  /// Empty: none.
  [[nodiscard]] const std::string& problem() const { return problem_; }

  /// What is wrong with a head's transfer codings; none for chunks and for no coding.
  static std::optional<std::string> transferProblem(const URLResponse& response);

 private:
  std::string problem_;
  std::optional<GzipReader> gzip_;  // none: the bytes are what they are
};

}  // namespace zun
