#include "LogDataEndpoint.h"

#include <fmt/format.h>

#include <iostream>

#include "Received.h"
#include "values/JSONWriter.h"
#include "values/KeyedArchiver.h"

namespace zun {

namespace {

constexpr const char* kContentType = "application/octet-stream";

}  // namespace

void LogDataEndpoint::take(const httplib::Request& request, httplib::Response& response,
                           const std::string& body, const std::string& base) {
  if (request.get_header_value("Content-Type") != kContentType) {
    return refuse(response, 415, fmt::format("the content type is not {}", kContentType));
  }
  const auto content = unarchiveObject(body);
  if (!content) return refuse(response, 400, "the body is no keyed archive: " + content.error());
  if (!content->isArray()) return refuse(response, 400, "the archive holds no array");

  const auto name = keep(body);
  if (!name) return refuse(response, 500, name.error());
  const std::string location = fmt::format("{}/logdata/{}", base, *name);
  const Dictionary record{
      {"_way", "logdata"},    {"received", secondsSince1970()}, {"bytes", uint64_t{body.size()}},
      {"location", location}, {"records", jsonForm(*content)},
  };
  if (std::string error = file_.append(writeJSON(record, JSONFormat::kCompact) + "\n"); !error.empty()) {
    if (folder_.keepsFiles()) folder_.remove(*name);
    return refuse(response, 500, error);
  }
  {
    const MutexLock lock(mutex_);
    ++totals_.archives;
    totals_.records += content->array()->size();
    totals_.bytes += body.size();
  }
  response.set_content(location, "text/plain");
}

void LogDataEndpoint::serve(const httplib::Request& request, httplib::Response& response) const {
  auto bytes = folder_.read(request.matches[1]);
  if (bytes) {
    response.set_content(*std::move(bytes), kContentType);
  } else {
    response.status = 404;
  }
}

LogDataTotals LogDataEndpoint::totals() const {
  const MutexLock lock(mutex_);
  return totals_;
}

void LogDataEndpoint::refuse(httplib::Response& response, int status, const std::string& why) {
  {
    const MutexLock lock(mutex_);
    ++totals_.refused;
  }
  response.status = status;
  response.set_content(why + "\n", "text/plain");
  std::cerr << fmt::format("log data refused: {}\n", why);
}

Result<std::string, std::string> LogDataEndpoint::keep(const std::string& body) {
  using Kept = Result<std::string, std::string>;
  if (!folder_.keepsFiles()) {
    const MutexLock lock(mutex_);
    return fmt::format("{}", ++notKept_);
  }
  auto file = folder_.begin();
  if (!file) return Kept::failure(file.error());
  if (!file->append(body)) return Kept::failure("the archive could not be written");
  auto name = file->complete("log.archive");
  if (!name) return Kept::failure("the archive could not be kept");
  return *std::move(name);
}

}  // namespace zun
