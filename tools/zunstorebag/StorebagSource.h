#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// The bytes of a file ("-" is standard input), at most 16 MiB. The error is a text for
/// people.
[[nodiscard]] Result<std::string, std::string> readInput(const std::string& path);

/// A storebag or an envelope as it is written: JSON, XML or binary property list, told
/// apart by the first bytes.
[[nodiscard]] Result<Value, std::string> parseSource(std::string_view bytes);

/// Values for the placeholders of a source: "@NAME@" inside any string.
using Definitions = std::vector<std::pair<std::string, std::string>>;

/// `source` with every placeholder replaced. Fails for one without a definition.
[[nodiscard]] Result<Value, std::string> replacePlaceholders(const Value& source,
                                                             const Definitions& definitions);

/// An envelope's two texts.
struct Envelope {
  std::string signature;  // decoded
  std::string bag;        // decoded
};

/// True for a dictionary that has "signature" and "bag".
[[nodiscard]] bool isEnvelope(const Value& value);
[[nodiscard]] Result<Envelope, std::string> decodeEnvelope(const Value& value);

}  // namespace zun
