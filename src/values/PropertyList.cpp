#include "values/PropertyList.h"

#include <fmt/format.h>

#include <exception>

#include "values/PropertyListForms.h"

namespace zun {

Result<Value, std::string> parsePropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  using Outcome = Result<Value, std::string>;
  if (bytes.empty()) return Outcome::failure("empty");
  if (bytes.size() > limits.maximumBytes) {
    return Outcome::failure(
        fmt::format("{} bytes are more than the {} that are allowed", bytes.size(), limits.maximumBytes));
  }
  try {
    return bytes.starts_with("bplist") ? parseBinaryPropertyList(bytes, limits)
                                       : parseXMLPropertyList(bytes, limits);
  } catch (const std::exception&) {
    return Outcome::failure("not enough memory");
  }
}

}  // namespace zun
