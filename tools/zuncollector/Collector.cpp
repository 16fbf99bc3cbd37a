#include "Collector.h"

#include <fmt/format.h>

#include <fstream>
#include <iostream>
#include <thread>

namespace zun {

namespace {

/// Largest body after decompression.
constexpr size_t kLargestBody = size_t{64} << 20;

}  // namespace

Collector::Collector(const CollectorOptions& options)
    : options_(options),
      storebags_(options.storebags),
      sink_(options.output),
      server_(options.certificate.c_str(), options.key.c_str()) {
  server_.Get("/([^/]+)", [this](const httplib::Request& request, httplib::Response& response) {
    serveStorebag(request, response);
  });
  server_.Post("/.*", [this](const httplib::Request& request, httplib::Response& response,
                             const httplib::ContentReader& body) { takePost(request, response, body); });
  server_.set_keep_alive_max_count(1'000'000);
  server_.set_tcp_nodelay(true);
}

std::string Collector::bind() {
  if (!server_.is_valid()) {
    return fmt::format("cannot use the certificate {} with the key {}", options_.certificate, options_.key);
  }
  if (!sink_.isOpen()) return fmt::format("cannot write to {}", options_.output);
  const bool anyPort = options_.port == 0;
  const int port = anyPort ? server_.bind_to_any_port(options_.host)
                           : (server_.bind_to_port(options_.host, options_.port) ? options_.port : -1);
  if (port <= 0) return fmt::format("cannot listen on {}:{}", options_.host, options_.port);
  port_ = static_cast<uint16_t>(port);

  if (!options_.portFile.empty()) {
    std::ofstream file(options_.portFile);
    file << port_ << '\n';
    if (!file.flush()) return fmt::format("cannot write to {}", options_.portFile);
  }
  return {};
}

void Collector::run() {
  server_.listen_after_bind();
  hasEnded_ = true;
}

void Collector::stop() {
  // The server ignores a stop that comes before it listens.
  while (!server_.is_running() && !hasEnded_) std::this_thread::yield();
  server_.stop();
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
      response.set_content(std::move(answer.bytes), "application/octet-stream");
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
  std::string body;
  const bool complete = content([&body](const char* bytes, size_t count) {
    if (body.size() + count > kLargestBody) return false;
    body.append(bytes, count);
    return true;
  });
  if (!complete) {
    if (response.status == -1) response.status = 400;
    response.set_content("the body is incomplete or too large\n", "text/plain");
    return;
  }
  const auto wireBytes = request.get_header_value<uint64_t>("Content-Length");
  const auto accepted = sink_.accept(body, wireBytes);
  if (!accepted) {
    response.status = 400;
    response.set_content(accepted.error() + "\n", "text/plain");
    std::cerr << fmt::format("POST {} refused: {}\n", request.path, accepted.error());
    return;
  }
  response.set_content("{}", "application/json");
  if (options_.verbose) {
    std::cerr << fmt::format("POST {} {}: {} events, {} bytes, {} on the wire\n", request.path,
                             request.get_header_value("X-ZUN-Sender"), *accepted, body.size(), wireBytes);
  }
}

}  // namespace zun
