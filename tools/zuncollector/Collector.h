#pragma once

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "EventSink.h"
#include "StorebagStore.h"

namespace zun {

struct CollectorOptions {
  std::string host = "127.0.0.1";
  uint16_t port = 0;  // 0: any free one
  std::string certificate;
  std::string key;
  std::string storebags;
  std::string output;
  std::string portFile;
  uint32_t maxAge = 3600;  // seconds, told to whoever fetches a storebag
  bool verbose = false;
};

/// A server to develop against: gives out storebags and takes posts, over HTTPS.
///
///   GET  /<storebag name>?version=...   the file, or 304 when it has not changed
///   POST /<anything>                    a JSON body, gzip or plain
///
/// Threading: `stop` from any thread, the rest from one.
class Collector final {
 public:
  explicit Collector(const CollectorOptions& options);

  /// Binds the port, and writes it to the port file. An error text on failure.
  std::string bind();
  [[nodiscard]] uint16_t port() const { return port_; }
  /// Serves until `stop`.
  void run();
  /// Ends `run`, also one that is only about to begin: waits for its beginning.
  void stop();

  [[nodiscard]] CollectedTotals totals() const { return sink_.totals(); }
  [[nodiscard]] uint64_t storebagsServed() const { return storebagsServed_; }
  [[nodiscard]] uint64_t storebagsNotModified() const { return storebagsNotModified_; }

 private:
  void serveStorebag(const httplib::Request& request, httplib::Response& response);
  void takePost(const httplib::Request& request, httplib::Response& response,
                const httplib::ContentReader& body);

  const CollectorOptions options_;
  StorebagStore storebags_;
  EventSink sink_;
  httplib::SSLServer server_;
  uint16_t port_ = 0;
  std::atomic<bool> hasEnded_{false};
  std::atomic<uint64_t> storebagsServed_{0};
  std::atomic<uint64_t> storebagsNotModified_{0};
};

}  // namespace zun
