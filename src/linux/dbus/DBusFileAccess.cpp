#include "linux/dbus/DBusFileAccess.h"

#include <fmt/format.h>

#include <cstdint>
#include <utility>

#include "linux/dbus/DBusObjects.h"

namespace zun {

namespace {

constexpr ServiceArgument kFile[] = {{"file", "h"}};
constexpr ServiceArgument kToken[] = {{"token", "ay"}};
constexpr ServiceMember kMembers[] = {{"issueExtension", kFile, kToken}};

}  // namespace

const ServiceInterface& DBusFileAccess::interfaceAt(std::string_view objectPath) {
  interface_ = {objectPath, "com.vantix.zunreportingd.FileAccess", kMembers};
  return interface_;
}

void DBusFileAccess::answer(const Array& arguments, std::vector<FileDescriptor>& descriptors,
                            ServiceReply reply) {
  const int64_t index = arguments[0].intValue();
  if (index < 0 || static_cast<uint64_t>(index) >= descriptors.size()) {
    reply.sendError(kDBusErrorInvalidArgs, fmt::format("There is no descriptor {}, {} came with the call",
                                                       index, descriptors.size()));
    return;
  }
  FileDescriptor& descriptor = descriptors[static_cast<size_t>(index)];
  if (!descriptor.isOpen()) {
    refuseForLimit(reply, "Too many files are open");
    return;
  }
  auto token = extensions_->issue(std::move(descriptor));
  if (token) {
    *token += '\0';
    reply.send(Array{Value::data(*token)});
    return;
  }
  switch (token.error()) {
    case FileExtensions::Refusal::kNotReadable:
      reply.sendError(kDBusErrorAccessDenied, "The descriptor is not open for reading");
      break;
    case FileExtensions::Refusal::kTooMany:
      refuseForLimit(reply, fmt::format("{} files have been handed over and not been used",
                                        FileExtensions::kMaximumUnused));
      break;
    case FileExtensions::Refusal::kEnded:
      reply.sendError(kDBusErrorFailed, "The connection has ended");
      break;
  }
}

/// Says it in the log once: a client may ask as often as it likes.
void DBusFileAccess::refuseForLimit(ServiceReply& reply, std::string_view text) {
  if (!std::exchange(hasToldOfLimit_, true)) log_.error("listener: a file of {} is refused: {}", peer_, text);
  reply.sendError(kDBusErrorLimitsExceeded, text);
}

}  // namespace zun
