#include "platform/URLSession.h"

#include <fmt/format.h>

#include "values/UTF8.h"

namespace zun {

void URLRequestCancellation::cancel() {
  std::vector<UniqueFunction<void()>> handlers;
  {
    const MutexLock lock(mutex_);
    isCancelled_ = true;
    handlers.swap(handlers_);
  }
  for (const auto& handler : handlers) handler();
}

bool URLRequestCancellation::isCancelled() const {
  const MutexLock lock(mutex_);
  return isCancelled_;
}

void URLRequestCancellation::onCancel(UniqueFunction<void()> handler) {
  {
    const MutexLock lock(mutex_);
    if (!isCancelled_) {
      handlers_.push_back(std::move(handler));
      return;
    }
  }
  handler();
}

void URLRequest::setHeader(std::string_view name, std::string value) {
  for (auto& header : headers) {
    if (!equalsIgnoringASCIICase(header.first, name)) continue;
    header.second = std::move(value);
    return;
  }
  headers.emplace_back(name, std::move(value));
}

std::optional<std::string> URLResponse::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringASCIICase(key, name)) return value;
  }
  return std::nullopt;
}

std::string URLResponse::headerList(std::string_view name) const {
  std::string list;
  for (const auto& [key, value] : headers) {
    if (!equalsIgnoringASCIICase(key, name)) continue;
    if (!list.empty()) list += ", ";
    list += value;
  }
  return list;
}

std::string URLResponse::description() const {
  std::string names;
  for (const auto& header : headers) {
    if (!names.empty()) names += ", ";
    names += header.first;
  }
  return fmt::format("<URLResponse: status {}, URL {}, headers [{}]>", statusCode, url, names);
}

}  // namespace zun
