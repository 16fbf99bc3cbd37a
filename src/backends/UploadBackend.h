#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/ZunReportingBackend.h"

namespace zun {

/// Uploads whole files that clients hand over, compressed, to a storebag's upload
/// server. Events mean nothing to it.
///
///   request ─▶ access to the file ─▶ its turn ─▶ compressed ─▶ posted ─▶ answer says "success": file deleted
///                     └────── not a file, empty, too large ──▶ false
///
/// Threading: as the base; an upload blocks the thread of the client that asked for it.
/// Ownership: as the base. While an upload waits for its server it keeps the client's
/// file open and nothing of the helper.
class UploadBackend final : public ZunReportingBackend {
 public:
  /// Null, after an error line, for a profile without "post_url".
  static std::shared_ptr<UploadBackend> initWithName(const ReportingServices& services, std::string_view name,
                                                     const Value& profile,
                                                     const std::optional<std::string>& productFamily);

  /// Where files go. Any thread.
  [[nodiscard]] std::optional<std::string> uploadURL() const;
  void setUploadURL(std::optional<std::string> url);

  /// True once the upload has been attempted, whatever came of it. The file's deletion
  /// alone says that the server has it.
  bool uploadFileAtPath(const std::string& path, const SandboxExtensionToken& extensionToken) override;

 private:
  UploadBackend(const ReportingServices& services, std::string name, Dictionary profile,
                const std::string& productFamily, std::string_view uploadURL);

  /// Null where there is nothing to send, or nobody who waits for that.
  [[nodiscard]] std::shared_ptr<const std::string> bodyOfFile(
      const std::string& path, const SandboxExtension& file,
      const SandboxExtensionToken& extensionToken) const;
  [[nodiscard]] std::unique_ptr<SandboxExtension> regularFileAtPath(
      const std::string& path, const SandboxExtensionToken& extensionToken) const;
  /// None for a URL that no request can be sent to.
  [[nodiscard]] std::optional<URLRequest> requestForFile(const std::string& uploadURL,
                                                         std::string_view path) const;
  /// Whether the server has the file.
  [[nodiscard]] bool post(const std::string& uploadURL, URLRequest request) const;

  mutable Mutex uploadMutex_;
  std::optional<std::string> uploadURL_ GUARDED_BY(uploadMutex_);
};

}  // namespace zun
