#include "backends/ZunReportingBackend.h"

#include <thread>

#include "BackendTest.h"

namespace zun {
namespace {

/// A backend of no kind, which remembers under which numbers messages came.
class PlainBackend final : public ZunReportingBackend {
 public:
  using ZunReportingBackend::sendMessage;
  explicit PlainBackend(const ReportingServices& services, Dictionary profile = {})
      : ZunReportingBackend(services, "plain", std::move(profile), "Pallax") {}

  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& time,
                                         uint16_t method, uint16_t respCode, uint16_t eventID,
                                         int32_t flag) override {
    lastEventID = eventID;
    return ZunReportingBackend::sendMessage(message, time, method, respCode, eventID, flag);
  }
  void setWhitelist(const Array& list) { eventWhitelist_.emplace(list); }
  void setBlacklist(const Array& list) { eventBlacklist_.emplace(list); }
  std::string versions() const {
    return fmt::format("{}.{}.{}", selfVersionMajor_, selfVersionMiddle_, selfVersionMinor_);
  }
  double samplingFactor() const { return samplingFactor_; }
  int32_t stateAsWritten() const { return state_; }
  double startTimeStamp() const { return startTimeStamp_; }
  int32_t compType() const { return compType_; }
  Value combined() const { return combinedSessionIDString(); }
  std::string queueLabel() const { return stateQueue_->label(); }

  uint16_t lastEventID = 0;
};

class ZunReportingBackendTest : public BackendTest {
 protected:
  std::shared_ptr<PlainBackend> plain() { return std::make_shared<PlainBackend>(services_); }
  std::shared_ptr<ZunReportingBackend> factory(std::string_view name) {
    return ZunReportingBackend::newBackendWithName(services_, name, profileOf(reportingClient()), "Pallax",
                                                   5);
  }
};

TEST_F(ZunReportingBackendTest, NamesThatContainTheHTTPPostNameMakeHTTPSBackends) {
  for (const char* name : {"httpPost", "httpPost3", "myhttpPostToo", "post2", "qrs"}) {
    const auto backend = factory(name);
    ASSERT_NE(std::dynamic_pointer_cast<HTTPSPostBackend>(backend), nullptr) << name;
    EXPECT_EQ(backend->name(), name);
  }
}

TEST_F(ZunReportingBackendTest, NamesInAnotherLetterCaseOrWithMoreTextAreUnknown) {
  for (const char* name : {"HTTPPost", "httppost", "post22", "QRS", "qrs2", "", "release_timeout"}) {
    EXPECT_EQ(factory(name), nullptr) << name;
    expectErrors({std::string("ZunReportingBackend(newBackendWithName): ") + name});
  }
}

TEST_F(ZunReportingBackendTest, KodoOnABrindleHostIsRefusedWithItsName) {
  platform_.device.set("ProductType", "Brindle");
  EXPECT_EQ(factory("kodo"), nullptr);
  expectErrors({"ZunReportingBackend(newBackendWithName): kodo"});
}

TEST_F(ZunReportingBackendTest, ProfileThatIsNoDictionaryOrNoProductFamilyIsRefusedInSilence) {
  EXPECT_EQ(ZunReportingBackend::newBackendWithName(services_, "httpPost", Value(5), "Pallax", 5), nullptr);
  EXPECT_EQ(ZunReportingBackend::newBackendWithName(services_, "httpPost", Value(), "Pallax", 5), nullptr);
  EXPECT_EQ(ZunReportingBackend::newBackendWithName(services_, "httpPost", profileOf(reportingClient()),
                                                    std::nullopt, 5),
            nullptr);
}

TEST_F(ZunReportingBackendTest, HTTPSProfileWithoutClientListIsRefusedWithAnErrorLine) {
  for (const Value& clients : {Value(), Value("Camera"), Value(Dictionary())}) {
    EXPECT_EQ(makeWithProfile(with({}, "clients", clients)), nullptr);
    expectErrors({"HTTPSPostBackend(initWithName): can't find the client list."});
  }
}

TEST_F(ZunReportingBackendTest, SelfVersionTakesThreeNumbersAndTheirLowEightBits) {
  const auto backend = plain();
  const auto versions = [&backend](std::string_view version) {
    backend->setSelfVersion(version);
    return backend->versions();
  };
  EXPECT_EQ(backend->versions(), "0.0.0");
  EXPECT_EQ(versions("2.1.4"), "2.1.4");
  EXPECT_EQ(versions("5"), "5.0.0");
  EXPECT_EQ(versions("1.2.3.4"), "1.2.3");
  EXPECT_EQ(versions("256.257.511"), "0.1.255");
  EXPECT_EQ(versions("-1.x.99999999999999999999"), "255.0.255");
  EXPECT_EQ(versions(""), "0.0.0");
  EXPECT_EQ(versions("7..3"), "7.0.3");
}

TEST_F(ZunReportingBackendTest, EventNumberWrapsToZeroAfter65535Messages) {
  const auto backend = plain();
  for (int i = 1; i <= 65535; ++i) EXPECT_EQ(backend->sendMessage({}, kEventTime, 1, 1, 0), std::nullopt);
  EXPECT_EQ(backend->lastEventID, 65535);
  backend->sendMessage({}, kEventTime, 1, 1, 0);
  EXPECT_EQ(backend->lastEventID, 0);
}

TEST_F(ZunReportingBackendTest, AbsentWhitelistPassesEverythingAndAnEmptyOneNothing) {
  const auto backend = plain();
  EXPECT_TRUE(backend->isWhitelistedEvent(7));
  backend->setWhitelist({});
  EXPECT_FALSE(backend->isWhitelistedEvent(7));
  EXPECT_FALSE(backend->isWhitelistedEvent(0));
}

TEST_F(ZunReportingBackendTest, AbsentOrEmptyBlacklistDeniesNothing) {
  const auto backend = plain();
  EXPECT_FALSE(backend->isBlacklistedEvent(0));
  backend->setBlacklist({});
  EXPECT_FALSE(backend->isBlacklistedEvent(0));
}

TEST_F(ZunReportingBackendTest, EventListsCompareByIntegerValue) {
  const auto backend = plain();
  const Array list{1, "22", 3.9, int64_t{1} << 32 | 5, "text", Array{}};
  backend->setWhitelist(list);
  backend->setBlacklist(list);
  for (const int32_t event : {1, 22, 3, 5, 0}) {
    EXPECT_TRUE(backend->isWhitelistedEvent(event)) << event;
    EXPECT_TRUE(backend->isBlacklistedEvent(event)) << event;
  }
  for (const int32_t event : {2, 4, -1}) {
    EXPECT_FALSE(backend->isWhitelistedEvent(event)) << event;
    EXPECT_FALSE(backend->isBlacklistedEvent(event)) << event;
  }
}

TEST_F(ZunReportingBackendTest, SHA256IsLowerCaseHexadecimal) {
  EXPECT_EQ(ZunReportingBackend::convertIntoSHA256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(ZunReportingBackend::convertIntoSHA256(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(ZunReportingBackendTest, SHA256CoversAsManyBytesAsTheTextHasUTF16Units) {
  // "é" is one unit and two bytes: of "abé" only "ab" and the first byte of it count.
  EXPECT_EQ(ZunReportingBackend::convertIntoSHA256("ab\u00e9"),
            ZunReportingBackend::convertIntoSHA256(Value(std::string_view("ab\xC3"))));
  // Beyond the basic plane: two units, four bytes, of which these two share the first two.
  EXPECT_EQ(ZunReportingBackend::convertIntoSHA256("\U0001F600"),
            ZunReportingBackend::convertIntoSHA256("\U0001F601"));
}

TEST_F(ZunReportingBackendTest, SHA256OfANumberIsThatOfItsText) {
  EXPECT_EQ(ZunReportingBackend::convertIntoSHA256(42), ZunReportingBackend::convertIntoSHA256("42"));
}

TEST_F(ZunReportingBackendTest, BaseFlushCallsACompletionAtOnceWithNothing) {
  const auto backend = plain();
  const auto outcome = std::make_shared<Outcome>();
  EXPECT_EQ(backend->flushMessagesWithCompletion(keepIn(outcome)), std::nullopt);
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_EQ(outcome->result, std::nullopt);
  EXPECT_EQ(outcome->error, std::nullopt);
}

TEST_F(ZunReportingBackendTest, BaseFlushWithoutCompletionDoesNothing) {
  EXPECT_EQ(plain()->flushMessagesWithCompletion(nullptr), std::nullopt);
}

TEST_F(ZunReportingBackendTest, BaseUploadsNothing) {
  const auto backend = plain();
  EXPECT_FALSE(backend->uploadFileAtPath("/etc/hostname", {}));
  EXPECT_FALSE(backend->uploadLogData({}));
}

TEST_F(ZunReportingBackendTest, BaseUpdateStateEnables) {
  const auto backend = plain();
  EXPECT_EQ(backend->state(), ZunBackendStateAwaitingUserInfo);
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  backend->cleanup();
}

TEST_F(ZunReportingBackendTest, SamplingDrawIsTenThousandthsBelowOne) {
  platform_.random.setNext({0, 2500, 9999});
  EXPECT_EQ(plain()->samplingFactor(), 0.0);
  EXPECT_EQ(plain()->samplingFactor(), 0.25);
  EXPECT_EQ(plain()->samplingFactor(), 0.9999);
}

TEST_F(ZunReportingBackendTest, FreshBackendHasNothingSet) {
  const auto backend = plain();
  EXPECT_TRUE(backend->samplingThreshold().isNone());
  EXPECT_TRUE(backend->combined().isNone());
  EXPECT_EQ(backend->displayURL(), std::nullopt);
  EXPECT_EQ(backend->queueLabel(), "com.vantix.ZunReportingBackendStateQueue");
}

TEST_F(ZunReportingBackendTest, StartTimestampIsSecondsWithMicroseconds) {
  const auto backend = plain();
  backend->setStartTimestamp({1'700'000'000, 250'000});
  EXPECT_EQ(backend->startTimeStamp(), 1'700'000'000.25);
}

TEST_F(ZunReportingBackendTest, ClientTypeWithoutSenderCodeIsRefused) {
  const auto backend = plain();
  backend->setCompType(25);
  backend->setCompType(26);
  backend->setCompType(-1);
  EXPECT_EQ(backend->compType(), 25);
  expectErrors({"ZunReportingBackend(setCompType): no such client type: 26",
                "ZunReportingBackend(setCompType): no such client type: -1"});
}

TEST_F(ZunReportingBackendTest, CorrelatedSessionIDBecomesTheCombinedOne) {
  const auto backend = plain();
  backend->setCorrelatedSessionID("1,2");
  EXPECT_EQ(backend->combined(), Value("1,2"));
}

using ZunReportingBackendQueueTest = HandCrankedBackendTest;

TEST_F(ZunReportingBackendQueueTest, SettingTheStateDoesNotWaitAndIsSeenByTheNextReader) {
  const auto backend = std::make_shared<PlainBackend>(services_);
  backend->setState(ZunBackendStateDisabled);
  EXPECT_EQ(backend->stateAsWritten(), ZunBackendStateAwaitingUserInfo);
  EXPECT_EQ(backend->state(), ZunBackendStateDisabled);
  executor_.runAll();
}

// What other sessions' threads may call beside the session's own calls.
TEST_F(ZunReportingBackendTest, StateAndSharedPropertiesAreSafeFromAnyThread) {
  const auto backend = plain();
  std::thread other([&backend] {
    for (int i = 0; i < 500; ++i) {
      backend->setState(i % 4);
      backend->setSamplingThreshold(0.5);
      backend->setCorrelatedSessionID("a,b");
    }
  });
  for (int i = 0; i < 500; ++i) {
    EXPECT_LT(backend->state(), 4);
    EXPECT_LE(backend->samplingThreshold().doubleValue(), 0.5);
    EXPECT_LE(backend->combined().stringValue().size(), 3U);
  }
  other.join();
  EXPECT_EQ(backend->state(), 499 % 4);
}

}  // namespace
}  // namespace zun
