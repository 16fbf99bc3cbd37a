#pragma once

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "AcknowledgementPlan.h"
#include "DashboardServer.h"
#include "EventSink.h"
#include "LogDataEndpoint.h"
#include "RecordFile.h"
#include "StorebagStore.h"
#include "UploadEndpoint.h"
#include "UploadFolder.h"

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

  std::optional<uint16_t> dashboardPort;  // 0: any free one; none: no dashboard
  std::string dashboardPortFile;
  AcknowledgementOptions acknowledgements;

  std::string uploads;  // folder; empty: uploaded files are counted and not kept
  UploadAnswer uploadAnswer = UploadAnswer::kSuccess;
  uint64_t uploadLimit = uint64_t{2} << 30;  // bytes
};

/// A server to develop against: gives out storebags and receives everything that leaves a
/// daemon, over HTTPS and as datagrams.
///
///   GET  /<storebag name>?version=...   the file, or 304 when it has not changed
///   POST /upload?uuid=...               a file, gzip or plain
///   POST /logdata                       a keyed archive; GET of its location gives it back
///   POST /<anything else>               a JSON body of events, gzip or plain
///   UDP                                 an event of a dashboard backend
///
/// Threading: `stop` from any thread, the rest from one.
class Collector final {
 public:
  explicit Collector(const CollectorOptions& options);

  /// Binds the ports, and writes them to the port files. An error text on failure.
  std::string bind();
  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] std::optional<uint16_t> dashboardPort() const;
  /// Serves until `stop`.
  void run();
  /// Ends `run`, also one that is only about to begin: waits for its beginning.
  void stop();

  /// What was received and served, a name and a number a line.
  [[nodiscard]] std::string summary() const;

 private:
  void route();
  std::string bindServer();
  std::string bindDashboard();
  void serveStorebag(const httplib::Request& request, httplib::Response& response);
  void takePost(const httplib::Request& request, httplib::Response& response,
                const httplib::ContentReader& body);
  void takeLogData(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader& body);

  const CollectorOptions options_;
  StorebagStore storebags_;
  RecordFile file_;
  UploadFolder uploads_;
  EventSink sink_;
  UploadEndpoint uploadEndpoint_;
  LogDataEndpoint logDataEndpoint_;
  DashboardServer dashboard_;
  httplib::SSLServer server_;
  uint16_t port_ = 0;
  std::atomic<bool> hasEnded_{false};
  std::atomic<uint64_t> storebagsServed_{0};
  std::atomic<uint64_t> storebagsNotModified_{0};
};

}  // namespace zun
