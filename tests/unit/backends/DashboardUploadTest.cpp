#include "HelperTest.h"
#include "backends/DashboardBackend.h"
#include "support/UDPTestServer.h"

namespace zun {
namespace {

/// A dashboard backend whose log data goes to a real server through a real helper.
class DashboardUploadTest : public HelperTest {
 protected:
  std::shared_ptr<ZunReportingBackend> make(const Value& postURL) {
    Dictionary profile{{"ip", "127.0.0.1"}, {"port", dashboard_.port()}};
    if (!postURL.isNone()) profile.set("post_url", postURL);
    auto backend =
        ZunReportingBackend::newBackendWithName(services_, "dashboard", profile, "Pallax Large", 7);
    backend->setReportingSessionConnectivityDelegate(helper_);
    return backend;
  }

  UDPTestServer dashboard_;
  DeviceIdentity identity_{platform_.services};
  MessageLog messageLog_{platform_.services};
  ReportingServices services_{platform_.services, identity_, messageLog_};
};

TEST_F(DashboardUploadTest, TheLocationOfUploadedLogDataIsReportedAsAnEvent) {
  server_.answer("/logs", {.body = "https://logs.example/1?a=b"});
  const auto backend = make(server_.url("/logs"));
  backend->sendMessage(Dictionary{}, {1000, 0}, 200, 9, 0);
  ASSERT_TRUE(dashboard_.receive());
  platform_.clock.setTimeOfDay({2000, 8000});
  EXPECT_TRUE(backend->uploadLogData({"line"}));
  expectDebugLine("DashboardBackend(uploadLogData): Log data uploaded to https://logs.example/1?a=b");
  const std::string datagram = dashboard_.receive().value_or(std::string(64, '\0'));
  using namespace std::string_literals;
  EXPECT_EQ(datagram.substr(3, 5), "\x02\x00\x00\x07\xD0"s);
  EXPECT_EQ(datagram.substr(16, 4), "\0\0\0\2"s) << "method 0, response code 2";
  EXPECT_EQ(datagram.substr(60, 2), "\0\2"s) << "numbered as every event";
  EXPECT_EQ(datagram.substr(64), " LogDataUploadLocation=https://logs.example/1?a\\=b");
}

TEST_F(DashboardUploadTest, WithoutAPostURLNothingIsUploadedNorReported) {
  for (const Value& postURL : {Value(), Value(5)}) {
    const auto backend = make(postURL);
    EXPECT_FALSE(backend->uploadLogData({"line"}));
    expectErrors({"DashboardBackend(uploadLogData): Post URL for log data array is nil"});
    backend->sendMessage(Dictionary{}, {1000, 0}, 200, 9, 0);
    EXPECT_EQ(dashboard_.receive().value_or("").substr(16, 4), std::string("\x00\xC8\x00\x09", 4));
  }
}

TEST_F(DashboardUploadTest, WithoutAHelperTheUploadFailsInsteadOfWaiting) {
  const auto backend = make(server_.url("/logs"));
  backend->setReportingSessionConnectivityDelegate({});
  EXPECT_FALSE(backend->uploadLogData({"line"}));
  expectErrors(
      {"DashboardBackend(uploadLogData): Error uploading log data array (there is no connectivity helper)"});
}

}  // namespace
}  // namespace zun
