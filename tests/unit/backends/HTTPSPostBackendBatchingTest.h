#pragma once

#include "BackendTest.h"

namespace zun {

inline constexpr const char* kForced =
    "HTTPSPostBackend(sendMessage): Got a realtime event and some events have already been batched. Forcing "
    "Flush here to keep events in order.";

// What is posted is seen in the texts that sending and flushing give: there is no
// connectivity helper here, so nothing leaves.
class HTTPSPostBackendBatchingTest : public BackendTest {
 protected:
  Dictionary clientWithThreshold(const Value& threshold) {
    return with(reportingClient(), "event_threshold", threshold);
  }

  /// The error that a flush reports at once.
  std::string flushError(HTTPSPostBackend& backend) {
    const auto outcome = std::make_shared<Outcome>();
    EXPECT_EQ(backend.flushMessagesWithCompletion(keepIn(outcome)), std::nullopt);
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_EQ(outcome->result, std::nullopt);
    if (!outcome->error) return "no error";
    EXPECT_EQ(outcome->error->domain, zunreporting::kZunReportingErrorDomain);
    EXPECT_EQ(outcome->error->code, -1);
    return outcome->error->description;
  }
  bool immutableIs(HTTPSPostBackend& backend) {
    backend.setUserInfoDict(Dictionary());
    const bool isImmutable = backend.updateBackendState() != ZunBackendStateAwaitingUserInfo;
    backend.setUserInfoDict(userInfo());
    return isImmutable;
  }
};

}  // namespace zun
