#pragma once

#include <string>

#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/SystemLog.h"

namespace zun {

/// Resources in a folder of the file system.
///
/// Threading: any thread. Ownership: `log` outlives it.
class ResourceBundle final : public Bundle {
 public:
  /// `folder` is taken as it is.
  ResourceBundle(std::string folder, SystemLog& log) : folder_(std::move(folder)), log_(log) {}

  /// None, and no line, where there is no such file; an error line for one that cannot
  /// be read. Names are of one path component.
  [[nodiscard]] std::optional<std::string> resource(std::string_view name,
                                                    std::string_view type) const override;
  [[nodiscard]] std::optional<std::string> version() const override;

 private:
  const std::string folder_;
  SystemLog& log_;
};

}  // namespace zun
