#include "platform/URLSession.h"

#include <fmt/format.h>

#include <algorithm>

namespace zun {
namespace {

char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool isSameName(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char left, char right) { return lowered(left) == lowered(right); });
}

}  // namespace

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
    if (!isSameName(header.first, name)) continue;
    header.second = std::move(value);
    return;
  }
  headers.emplace_back(name, std::move(value));
}

std::optional<std::string> URLResponse::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (isSameName(key, name)) return value;
  }
  return std::nullopt;
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
