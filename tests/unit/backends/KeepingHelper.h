#pragma once

#include <utility>
#include <vector>

#include "connectivity/ReportingSessionConnectivityInterface.h"

namespace zun {

/// Keeps what would go to the network, for what no server can see.
class KeepingHelper final : public ReportingSessionConnectivityInterface {
 public:
  void postURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion) override {
    requests.push_back(std::move(request));
  }
  void getURLRequestWithCompletionHandler(URLRequest, ConnectivityCompletion) override {}

  std::vector<URLRequest> requests;
};

}  // namespace zun
