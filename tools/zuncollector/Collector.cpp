#include "Collector.h"

#include <fmt/format.h>

#include <fstream>
#include <iostream>
#include <thread>

namespace zun {

namespace {

/// Largest body of events or log data, after decompression.
constexpr size_t kLargestBody = size_t{64} << 20;
/// One for each connection, also one that idles or hangs.
constexpr size_t kThreads = 32;

std::string writePort(const std::string& path, uint16_t port) {
  if (path.empty()) return {};
  std::ofstream file(path);
  file << port << '\n';
  return file.flush() ? std::string() : fmt::format("cannot write to {}", path);
}

/// None when it is incomplete or larger than kLargestBody.
std::optional<std::string> wholeBody(const httplib::ContentReader& content) {
  std::string body;
  const bool complete = content([&body](const char* bytes, size_t count) {
    if (body.size() + count > kLargestBody) return false;
    body.append(bytes, count);
    return true;
  });
  return complete ? std::optional(std::move(body)) : std::nullopt;
}

constexpr const char* kNoWholeBody = "the body is incomplete or too large";

}  // namespace

Collector::Collector(const CollectorOptions& options)
    : options_(options),
      storebags_(options.storebags),
      file_(options.output),
      uploads_(options.uploads),
      sink_(file_),
      uploadEndpoint_(file_, uploads_, options.uploadAnswer, options.uploadLimit),
      logDataEndpoint_(file_, uploads_),
      dashboard_(file_, options.acknowledgements),
      server_(options.certificate.c_str(), options.key.c_str()) {
  route();
  server_.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server_.set_keep_alive_max_count(1'000'000);
  server_.set_tcp_nodelay(true);
}

void Collector::route() {
  server_.Get("/([^/]+)", [this](const httplib::Request& request, httplib::Response& response) {
    serveStorebag(request, response);
  });
  server_.Get("/logdata/([^/]+)", [this](const httplib::Request& request, httplib::Response& response) {
    logDataEndpoint_.serve(request, response);
  });
  server_.Post("/upload",
               [this](const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& body) { uploadEndpoint_.take(request, response, body); });
  server_.Post("/logdata",
               [this](const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& body) { takeLogData(request, response, body); });
  server_.Post("/.*", [this](const httplib::Request& request, httplib::Response& response,
                             const httplib::ContentReader& body) { takePost(request, response, body); });
}

std::string Collector::bind() {
  if (!file_.isOpen()) return fmt::format("cannot write to {}", options_.output);
  // The dashboard's port first: whoever waits for the server's then knows both.
  std::string error = bindDashboard();
  return error.empty() ? bindServer() : error;
}

std::string Collector::bindServer() {
  if (!server_.is_valid()) {
    return fmt::format("cannot use the certificate {} with the key {}", options_.certificate, options_.key);
  }
  const bool anyPort = options_.port == 0;
  const int port = anyPort ? server_.bind_to_any_port(options_.host)
                           : (server_.bind_to_port(options_.host, options_.port) ? options_.port : -1);
  if (port <= 0) return fmt::format("cannot listen on {}:{}", options_.host, options_.port);
  port_ = static_cast<uint16_t>(port);
  return writePort(options_.portFile, port_);
}

std::string Collector::bindDashboard() {
  if (!options_.dashboardPort) return {};
  std::string error = dashboard_.bind(options_.host, *options_.dashboardPort);
  return error.empty() ? writePort(options_.dashboardPortFile, dashboard_.port()) : error;
}

std::optional<uint16_t> Collector::dashboardPort() const {
  return options_.dashboardPort ? std::optional(dashboard_.port()) : std::nullopt;
}

void Collector::run() {
  if (options_.dashboardPort) dashboard_.start();
  server_.listen_after_bind();
  dashboard_.stop();
  hasEnded_ = true;
}

void Collector::stop() {
  uploadEndpoint_.stopHanging();
  // The server ignores a stop that comes before it listens.
  while (!server_.is_running() && !hasEnded_) std::this_thread::yield();
  server_.stop();
}

std::string Collector::summary() const {
  const CollectedTotals posts = sink_.totals();
  const DashboardTotals dashboard = dashboard_.totals();
  const UploadTotals uploads = uploadEndpoint_.totals();
  const LogDataTotals logData = logDataEndpoint_.totals();
  return fmt::format(
             "posts {}\nrefused {}\nevents {}\nbytes {}\nwire-bytes {}\nstorebags {}\nnot-modified {}\n",
             posts.posts, posts.refusedPosts, posts.events, posts.bodyBytes, posts.wireBytes,
             storebagsServed_, storebagsNotModified_) +
         fmt::format(
             "datagrams {}\ndatagrams-duplicate {}\ndatagrams-malformed {}\ndatagrams-unrecorded {}\n"
             "datagrams-acknowledged {}\n",
             dashboard.datagrams, dashboard.duplicates, dashboard.malformed, dashboard.unrecorded,
             dashboard.acknowledged) +
         fmt::format("uploads {}\nuploads-refused {}\nupload-bytes {}\nupload-wire-bytes {}\n",
                     uploads.uploads, uploads.refused, uploads.bytes, uploads.wireBytes) +
         fmt::format("logdata {}\nlogdata-refused {}\nlogdata-records {}\nlogdata-bytes {}\n",
                     logData.archives, logData.refused, logData.records, logData.bytes);
}

void Collector::serveStorebag(const httplib::Request& request, httplib::Response& response) {
  const std::string name = request.matches[1];
  std::optional<std::string> since;
  if (request.has_header("If-Modified-Since")) since = request.get_header_value("If-Modified-Since");
  StorebagAnswer answer = storebags_.answer(name, since);
  switch (answer.kind) {
    case StorebagAnswer::Kind::kNotFound: response.status = 404; break;
    case StorebagAnswer::Kind::kNotModified:
      ++storebagsNotModified_;
      response.status = 304;
      break;
    case StorebagAnswer::Kind::kFile:
      ++storebagsServed_;
      response.set_content(answer.bytes, "application/octet-stream");
      break;
  }
  if (answer.kind != StorebagAnswer::Kind::kNotFound) {
    response.set_header("Last-Modified", answer.lastModified);
    response.set_header("Cache-Control", fmt::format("max-age={}", options_.maxAge));
  }
  if (options_.verbose)
    std::cerr << fmt::format("GET {} -> {}\n", request.path, response.status == -1 ? 200 : response.status);
}

void Collector::takePost(const httplib::Request& request, httplib::Response& response,
                         const httplib::ContentReader& content) {
  const auto body = wholeBody(content);
  if (!body) {
    if (response.status == -1) response.status = 400;
    response.set_content(fmt::format("{}\n", kNoWholeBody), "text/plain");
    return;
  }
  const auto wireBytes = request.get_header_value<uint64_t>("Content-Length");
  const auto accepted = sink_.accept(*body, wireBytes);
  if (!accepted) {
    response.status = 400;
    response.set_content(accepted.error() + "\n", "text/plain");
    std::cerr << fmt::format("POST {} refused: {}\n", request.path, accepted.error());
    return;
  }
  response.set_content("{}", "application/json");
  if (options_.verbose) {
    std::cerr << fmt::format("POST {} {}: {} events, {} bytes, {} on the wire\n", request.path,
                             request.get_header_value("X-ZUN-Sender"), *accepted, body->size(), wireBytes);
  }
}

void Collector::takeLogData(const httplib::Request& request, httplib::Response& response,
                            const httplib::ContentReader& content) {
  const auto body = wholeBody(content);
  if (!body) return logDataEndpoint_.refuse(response, 400, kNoWholeBody);
  logDataEndpoint_.take(request, response, *body, fmt::format("https://{}:{}", options_.host, port_));
}

}  // namespace zun
