#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "linux/files/FileExtensions.h"
#include "platform/ServiceConnection.h"
#include "platform/SystemLog.h"

namespace zun {

/// The interface by which a client hands files over: issueExtension takes an open descriptor
/// and gives the token that stands for it in later calls. It is every connection's own and
/// stands beside the interface that the connection exports.
///
/// One thread, the connection's; the extensions are anybody's.
class DBusFileAccess final {
 public:
  /// `log` outlives this. `peer`: how lines of the log call the client.
  DBusFileAccess(FileSystemIdentity client, std::string peer, SystemLog& log)
      : peer_(std::move(peer)), log_(log), extensions_(std::make_shared<FileExtensions>(std::move(client))) {}
  DBusFileAccess(const DBusFileAccess&) = delete;
  DBusFileAccess& operator=(const DBusFileAccess&) = delete;

  /// The interface, from now on at `objectPath`; both live as long as this.
  const ServiceInterface& interfaceAt(std::string_view objectPath);

  /// Answers a call; takes out of `descriptors`, which came with it, the one it is about.
  void answer(const Array& arguments, std::vector<FileDescriptor>& descriptors, ServiceReply reply);

  [[nodiscard]] const std::shared_ptr<FileExtensions>& extensions() const { return extensions_; }

 private:
  void refuseForLimit(ServiceReply& reply, std::string_view text);

  const std::string peer_;
  SystemLog& log_;
  const std::shared_ptr<FileExtensions> extensions_;
  ServiceInterface interface_;
  bool hasToldOfLimit_ = false;
};

}  // namespace zun
