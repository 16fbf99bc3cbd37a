#include "UploadEndpoint.h"

#include <fmt/format.h>

#include <iostream>

#include "Received.h"
#include "values/GzipReader.h"
#include "values/JSONWriter.h"

namespace zun {

namespace {

constexpr const char* kJSON = "application/json";

/// Takes the encoding out of the request, whose body then comes as it was sent. The
/// library's own decompression would take a stream that is cut for a whole one, and the
/// sender deletes a file that was taken.
std::string takeEncoding(const httplib::Request& request) {
  std::string encoding = request.get_header_value("Content-Encoding");
  const_cast<httplib::Request&>(request).headers.erase("Content-Encoding");
  return encoding;
}

}  // namespace

std::string_view nameOf(UploadAnswer answer) {
  switch (answer) {
    case UploadAnswer::kSuccess: return "success";
    case UploadAnswer::kFailure: return "failure";
    case UploadAnswer::kEmpty: return "empty";
    case UploadAnswer::kHang: return "hang";
    case UploadAnswer::kServerError: return "http-500";
    case UploadAnswer::kBroken: return "broken";
  }
  return "";
}

void UploadEndpoint::take(const httplib::Request& request, httplib::Response& response,
                          const httplib::ContentReader& content) {
  const auto query = UploadQuery::parse(request.target);
  // Read even if it is refused: what is left of a body would be taken for the next request.
  Body body = receive(takeEncoding(request), content);
  if (!query) return refuse(response, 400, query.error());
  if (!body.error.empty()) return refuse(response, 400, body.error);
  if (std::string error = keep(request, *query, body); !error.empty()) return refuse(response, 500, error);
  {
    const MutexLock lock(mutex_);
    ++totals_.uploads;
    totals_.wireBytes += body.wireBytes;
    totals_.bytes += body.bytes;
  }
  answer(response);
}

void UploadEndpoint::stopHanging() {
  isStopping_ = true;
  isStopping_.notify_all();
}

UploadTotals UploadEndpoint::totals() const {
  const MutexLock lock(mutex_);
  return totals_;
}

UploadEndpoint::Body UploadEndpoint::receive(const std::string& encoding,
                                             const httplib::ContentReader& content) {
  Body body;
  if (encoding != "gzip" && !encoding.empty()) body.error = "the body is neither gzip nor plain";
  if (folder_.keepsFiles() && body.error.empty()) {
    auto file = folder_.begin();
    if (file) {
      body.file.emplace(std::move(*file));
    } else {
      body.error = file.error();
    }
  }
  GzipReader gzip;
  const auto sink = [this, &body](std::string_view bytes) { return store(body, bytes); };
  const bool isComplete = content([&](const char* bytes, size_t count) {
    body.wireBytes += count;
    if (body.wireBytes > limit_) return false;
    if (!body.error.empty()) return true;
    const std::string_view piece(bytes, count);
    if (encoding.empty()) {
      sink(piece);
    } else if (!gzip.feed(piece, sink) && body.error.empty()) {
      body.error = "the body is no gzip";
    }
    return true;
  });
  if (!body.error.empty()) return body;
  if (!isComplete) {
    body.error = body.wireBytes > limit_ ? "the body is too large" : "the body is incomplete";
  } else if (!encoding.empty() && !gzip.isAtTheEnd()) {
    body.error = "the body ends within its gzip stream";
  }
  return body;
}

bool UploadEndpoint::store(Body& body, std::string_view bytes) const {
  body.bytes += bytes.size();
  if (body.bytes > limit_) {
    body.error = "the body is too large";
  } else if (body.file && !body.file->append(bytes)) {
    body.error = "the file could not be written";
  }
  return body.error.empty();
}

std::string UploadEndpoint::keep(const httplib::Request& request, const UploadQuery& query, Body& body) {
  Dictionary record{
      {"_way", "upload"},
      {"received", secondsSince1970()},
      {"path", jsonForm(request.path)},
      {"contentType", jsonForm(request.get_header_value("Content-Type"))},
      {"uuid", query.uuid},
      {"sequence", query.sequence},
      {"description", query.description},
      {"filename", query.fileName},
      {"raw", query.isRaw},
      {"wireBytes", body.wireBytes},
      {"bytes", body.bytes},
      {"answer", nameOf(answer_)},
  };
  std::optional<std::string> kept;
  if (body.file) {
    kept = body.file->complete(safeFileName(query.fileName));
    if (!kept) return "the file could not be kept";
    record.set("storedAs", *kept);
  }
  std::string error = file_.append(writeJSON(record, JSONFormat::kCompact) + "\n");
  if (!error.empty() && kept) folder_.remove(*kept);
  return error;
}

void UploadEndpoint::answer(httplib::Response& response) {
  switch (answer_) {
    case UploadAnswer::kSuccess: return response.set_content(R"({"status":"success"})", kJSON);
    case UploadAnswer::kFailure: return response.set_content(R"({"status":"failure"})", kJSON);
    case UploadAnswer::kEmpty: return;
    case UploadAnswer::kHang: isStopping_.wait(false); return;
    case UploadAnswer::kServerError:
      response.status = 500;
      return response.set_content(R"({"status":"failure"})", kJSON);
    case UploadAnswer::kBroken:
      return response.set_content_provider(1000, kJSON, [](size_t offset, size_t, httplib::DataSink& sink) {
        return offset == 0 && sink.write(R"({"status":)", 10);
      });
  }
}

void UploadEndpoint::refuse(httplib::Response& response, int status, const std::string& why) {
  {
    const MutexLock lock(mutex_);
    ++totals_.refused;
  }
  response.status = status;
  response.set_content(writeJSON(Dictionary{{"status", "refused"}, {"reason", why}}, JSONFormat::kCompact),
                       kJSON);
  std::cerr << fmt::format("upload refused: {}\n", why);
}

}  // namespace zun
