#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "values/Result.h"

namespace zun {

/// What the target of an upload says about the file that is its body.
struct UploadQuery {
  std::string uuid;  // the device's identifier
  uint32_t sequence = 0;
  std::string description;
  std::string fileName;
  bool isRaw = false;

  /// Reads "/upload?uuid=...&sequence=...&description=...&filename=...&raw=true". Only %XX
  /// is decoded: a "+" is a "+". An error text when uuid, sequence or filename is missing
  /// or wrong. Bytes that are no UTF-8 become U+FFFD.
  static Result<UploadQuery, std::string> parse(std::string_view target);
};

/// The last path component of `name`, fit for a file of any folder: letters, digits, "-",
/// "_" and "." stay, anything else becomes "_", so does a dot at the beginning; 100 bytes
/// at most, and never empty.
[[nodiscard]] std::string safeFileName(std::string_view name);

}  // namespace zun
