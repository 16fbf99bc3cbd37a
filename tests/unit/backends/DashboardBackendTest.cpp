#include "backends/DashboardBackend.h"

#include <sys/resource.h>

#include <cerrno>
#include <new>
#include <numeric>
#include <utility>

#include "DashboardTest.h"
#include "values/UTF8.h"

// Buffers of datagrams are asked for without exceptions; a test may refuse them.
static thread_local bool refusesMemory = false;

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (refusesMemory) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace zun {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

/// The real sockets; keeps what they are asked to send, whatever becomes of it.
class ObservedSockets final : public DatagramSocketService {
 public:
  explicit ObservedSockets(DatagramSocketService& real) : real_(real) {}

  Result<std::unique_ptr<DatagramSocket>, Error> makeSocket() override {
    auto made = real_.makeSocket();
    return std::unique_ptr<DatagramSocket>(new Socket(*this, std::move(*made)));
  }
  std::vector<std::string> takeSent() { return std::exchange(sent_, {}); }

 private:
  class Socket final : public DatagramSocket {
   public:
    Socket(ObservedSockets& sockets, std::unique_ptr<DatagramSocket> real)
        : sockets_(sockets), real_(std::move(real)) {}
    std::optional<Error> bindToAnyAddress() override { return real_->bindToAnyAddress(); }
    std::optional<Error> connect(const IPv4SocketAddress& peer) override { return real_->connect(peer); }
    Result<size_t, Error> send(std::span<const std::byte> datagram) override {
      sockets_.sent_.emplace_back(reinterpret_cast<const char*>(datagram.data()), datagram.size());
      return real_->send(datagram);
    }
    Result<size_t, Error> receive(std::span<std::byte> buffer) override { return real_->receive(buffer); }
    std::shared_ptr<ReadSource> startReadSource(std::shared_ptr<SerialQueue> queue,
                                                UniqueFunction<void()> readable,
                                                UniqueFunction<void()> cancelled) override {
      return real_->startReadSource(std::move(queue), std::move(readable), std::move(cancelled));
    }
    void close() override { real_->close(); }

   private:
    ObservedSockets& sockets_;
    const std::unique_ptr<DatagramSocket> real_;
  };

  DatagramSocketService& real_;
  std::vector<std::string> sent_;
};

/// Backends whose datagrams are seen without a server.
class DashboardSendsTest : public DashboardTest {
 protected:
  std::shared_ptr<ZunReportingBackend> makeObserved(const Dictionary& profile) {
    auto backend = ZunReportingBackend::newBackendWithName(observed_, "dashboard", profile, "Pallax", 7);
    if (backend != nullptr) setUp(*backend);
    return backend;
  }
  std::vector<int> eventsSent() {
    std::vector<int> numbers;
    for (const std::string& datagram : sockets_.takeSent()) numbers.push_back(eventNumberOf(datagram));
    return numbers;
  }

  ObservedSockets sockets_{platform_.sockets};
  const PlatformServices observedPlatform_{
      platform_.log,         platform_.clock,        platform_.random, platform_.files,   platform_.defaults,
      platform_.device,      platform_.locale,       platform_.bundle, executor_,         platform_.timers,
      platform_.urlSessions, platform_.transactions, sockets_,         platform_.modules, platform_.powerLog};
  const ReportingServices observed_{observedPlatform_, identity_, messageLog_};
};

class DashboardBackendTest : public DashboardTest {
 protected:
  std::shared_ptr<DashboardBackend> makeWithoutProfile(const std::optional<std::string>& address,
                                                       uint16_t port) {
    auto backend = DashboardBackend::initWithName(services_, "dashboard", address, port, "Pallax Large");
    if (backend != nullptr) setUp(*backend);
    return backend;
  }
  std::string datagram() { return server_.receiveIfThere().value_or(std::string()); }
  static std::string flagsOf(const std::string& datagram) { return datagram.substr(62, 2); }
};

// Initialising

TEST_F(DashboardBackendTest, TheFactoryMakesOneOfTheDashboardName) {
  const auto backend = make(profile());
  ASSERT_NE(std::dynamic_pointer_cast<DashboardBackend>(backend), nullptr);
  EXPECT_EQ(backend->name(), "dashboard");
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
}

TEST_F(DashboardBackendTest, AProfileWithoutAnAddressNamesNoServer) {
  EXPECT_EQ(make(Dictionary{{"port", 80}}), nullptr);
  expectErrors({"DashboardBackend(initWithName): can't resolve server IP",
                "DashboardBackend(initWithName): initWitName with all null params."});
  EXPECT_EQ(make(Dictionary{}), nullptr);
  expectErrors({"DashboardBackend(initWithName): can't resolve server IP",
                "DashboardBackend(initWithName): can't resolve server port",
                "DashboardBackend(initWithName): initWitName with all null params."});
}

TEST_F(DashboardBackendTest, AProfileThatIsNoDictionaryIsNone) {
  for (const Value& profile : {Value(), Value("127.0.0.1"), Value(5)}) {
    EXPECT_EQ(make(profile), nullptr);
    expectErrors({"DashboardBackend(initWithName): initWitName with all null params."});
  }
}

// As without any profile: reliable, and nothing of the profile is used.
TEST_F(DashboardBackendTest, AProfileWithoutAPortIsSentToPortZeroAndNotUsed) {
  const auto backend = make(Dictionary{{"ip", "127.0.0.1"}, {"display_url", "https://display.example"}});
  expectErrors({"DashboardBackend(initWithName): can't resolve server port"});
  ASSERT_NE(backend, nullptr);
  EXPECT_EQ(backend->displayURL(), std::nullopt);
  EXPECT_TRUE(sendEvent(*backend));
}

TEST_F(DashboardSendsTest, AnAddressWithoutAPortIsReliableAndSaysThatNoProfileIsUsed) {
  auto backend = makeObserved({{"ip", "127.0.0.1"}});
  expectErrors({"DashboardBackend(initWithName): can't resolve server port"});
  ASSERT_NE(backend, nullptr);
  sendEvent(*backend);
  const auto sent = sockets_.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent.front().substr(62, 2), "\0\3"s);
  backend.reset();
  executor_.runAll();
}

// What is sent there is as good as lost on the way: it is not kept.
TEST_F(DashboardSendsTest, PortZeroHoldsUpNeitherEventsNorTicks) {
  auto backend = makeObserved({{"ip", "127.0.0.1"}, {"port", 0}});
  ASSERT_NE(backend, nullptr);
  std::vector<int> all(100);
  std::iota(all.begin(), all.end(), 1);
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(sendEvent(*backend));
  EXPECT_EQ(eventsSent(), all);
  tick();
  EXPECT_EQ(platform_.timers.running(), 0U) << "nothing waits";
  EXPECT_EQ(eventsSent(), std::vector<int>{});
  backend.reset();
  executor_.runAll();
}

TEST_F(DashboardBackendTest, AnAddressThatCannotBeParsedCannotBeConnectedTo) {
  for (const Value& address : {Value("dashboard.example"), Value(""), Value(5), Value(Array{"127.0.0.1"})}) {
    EXPECT_EQ(make(Dictionary{{"ip", address}, {"port", 80}}), nullptr);
    EXPECT_EQ(make(Dictionary{{"ip", address}, {"port", 80}, {"reliable", 500}}), nullptr);
    const std::string line = "DashboardBackend(initWithName): socket connect() failed.";
    expectErrors({line, line});
  }
  executor_.runAll();
  EXPECT_EQ(platform_.timers.started().size(), 0U);
}

TEST_F(DashboardBackendTest, AMachineWithoutDescriptorsIsAnErrorLine) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto backend = make(profile());
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(backend, nullptr);
  expectErrors({"DashboardBackend(initWithName): socket() failed (" + std::to_string(EMFILE) + ")"});
}

// One socket each: when nearly all descriptors are taken, further sessions go without
// and everything else goes on.
TEST_F(DashboardBackendTest, OfAThousandSessionsThoseWithADescriptorLeftHaveABackend) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit low{256, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<std::shared_ptr<ZunReportingBackend>> backends;
  for (int i = 0; i < 1000; ++i) {
    if (auto backend = make(reliableProfile())) backends.push_back(std::move(backend));
  }
  EXPECT_EQ(platform_.files.createFile(platform_.scratch.path() + "/file", "still written"), std::nullopt);
  const size_t made = backends.size();
  EXPECT_GT(made, 20U);
  EXPECT_LT(made, 192U) << "three quarters, of which the test itself has some";
  for (const auto& backend : backends) sendEvent(*backend);
  EXPECT_EQ(eventsAtServer().size(), made);
  backends.pop_back();
  executor_.runAll();
  EXPECT_NE(make(reliableProfile()), nullptr) << "one has become free";
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  expectErrors(std::vector(
      1000 - made, "DashboardBackend(initWithName): socket() failed (" + std::to_string(EMFILE) + ")"));
}

TEST_F(DashboardBackendTest, WithoutATimerThereIsNoBackend) {
  platform_.timers.isRefusing = true;
  EXPECT_EQ(make(profile()), nullptr);
  expectErrors({"DashboardBackend(initWithName): can't create timer source."});
  EXPECT_EQ(make(reliableProfile()), nullptr);
  expectErrors({"DashboardBackend(initWithName): can't create timer source."});
}

TEST_F(DashboardBackendTest, WithoutAProfileAnAddressIsNeeded) {
  EXPECT_EQ(makeWithoutProfile(std::nullopt, 80), nullptr);
  EXPECT_EQ(makeWithoutProfile("nonsense", 80), nullptr);
  expectErrors({"DashboardBackend(initWithName): socket connect() failed."});
}

TEST_F(DashboardBackendTest, WithoutAProfileTheModeIsAlwaysReliable) {
  const auto backend = makeWithoutProfile("127.0.0.1", server_.port());
  ASSERT_NE(backend, nullptr);
  sendEvent(*backend);
  EXPECT_EQ(flagsOf(datagram()), "\0\3"s);
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

TEST_F(DashboardBackendTest, FlagsSayWhetherTheModeIsReliable) {
  const auto plain = make(profile());
  sendEvent(*plain);
  EXPECT_EQ(flagsOf(datagram()), "\0\0"s);
  const auto reliable = make(reliableProfile());
  sendEvent(*reliable);
  EXPECT_EQ(flagsOf(datagram()), "\0\1"s);
}

TEST_F(DashboardBackendTest, ThePortKeepsItsLow16BitsAndMayBeText) {
  Dictionary of = profile();
  of.set("port", 0x50000 + server_.port());
  sendEvent(*make(of));
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  of.set("port", std::to_string(server_.port()));
  sendEvent(*make(of));
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

TEST_F(DashboardBackendTest, TheDisplayURLIsTheProfiles) {
  Dictionary of = profile();
  of.set("display_url", "https://display.example/events");
  EXPECT_EQ(make(of)->displayURL(), "https://display.example/events");
  of.set("display_url", 5);
  EXPECT_EQ(make(of)->displayURL(), std::nullopt);
}

TEST_F(DashboardBackendTest, TheTimerTicksEvery500MillisecondsOrAsTheProfileSays) {
  struct Case {
    Value reliable;
    std::chrono::milliseconds period;
    std::vector<std::string> errors = {};
  };
  const auto bounded = [](const std::string& given, const std::string& counts) {
    return std::vector{"DashboardBackend(initWithName): a \"reliable\" of " + given + " ms counts as " +
                       counts + " ms"};
  };
  const std::vector<Case> cases{
      {Value(), 500ms},
      {250, 250ms},
      {"1500", 1500ms},
      {10, 10ms},
      {86'400'000, 24h},
      {0, 10ms, bounded("0", "10")},
      {-5, 10ms, bounded("-5", "10")},
      {true, 10ms, bounded("1", "10")},
      {Dictionary{}, 10ms, bounded("0", "10")},
      {"nonsense", 10ms, bounded("0", "10")},
      {86'400'001, 24h, bounded("86400001", "86400000")},
      {std::numeric_limits<int64_t>::max(), 24h, bounded("9223372036854775807", "86400000")},
      {1e300, 24h, bounded("9223372036854775807", "86400000")},
  };
  for (const Case& each : cases) {
    Dictionary of = profile();
    of.set("reliable", each.reliable);
    const auto backend = make(of);
    ASSERT_NE(backend, nullptr);
    const TimerOptions options = platform_.timers.started().back();
    EXPECT_EQ(options.firstFiring, each.period) << each.reliable.description();
    EXPECT_EQ(options.interval, each.period);
    EXPECT_EQ(options.leeway, 100ms);
    expectErrors(each.errors);
  }
}

// Sending

TEST_F(DashboardBackendTest, AnEventIsOneDatagramOfItsPayload) {
  const auto backend = make(profile());
  sendEvent(*backend, {{"b", "xyz"}, {"a", "1"}});
  const std::string expected = "\x03\x07\x01\x1E\x00\x00\x03\xE8"s + "\xFF\xFF\xFF\xB2"s + "\xFF\xFC"s +
                               "\xFF\xB5"s + "\x00\xC8\x00\x09"s + "00008030-001C2D223A82802E" +
                               std::string(15, '\0') + "\x00\x01"s + "\x00\x00"s + " a=1 b=xyz";
  EXPECT_EQ(datagram(), expected);
  EXPECT_EQ(server_.receiveIfThere(), std::nullopt);
}

TEST_F(DashboardBackendTest, TheLocalRecordIsTheResponse) {
  const auto backend = make(profile());
  EXPECT_EQ(sendEvent(*backend, {{"a", "1"}}),
            "1000.120 00008030-001C2D223A82802E 127.0.0.1 KF     3    77     1   200     9  a=1");
}

TEST_F(DashboardBackendTest, TheClientsDataIsThePayloadElseTheMessageItself) {
  const auto backend = make(profile());
  const auto textOf = [&](const std::optional<Dictionary>& message) {
    backend->sendMessage(message, kEventTime, 1, 2, 0);
    executor_.runAll();
    return datagram().substr(64);
  };
  EXPECT_EQ(textOf(Dictionary{{"ClientData", Dictionary{{"a", 1}}}, {"SharedData", Dictionary{{"s", 1}}}}),
            " a=1");
  EXPECT_EQ(textOf(Dictionary{{"a", 1}}), " a=1");
  EXPECT_EQ(textOf(Dictionary{{"ClientData", Dictionary{}}}), "");
  EXPECT_EQ(textOf(std::nullopt), "");
}

TEST_F(DashboardBackendTest, EventsAreNumberedAndTheFlagChangesNothing) {
  const auto backend = make(profile());
  for (const int32_t flag : {0, 1, 2, -1}) backend->sendMessage(Dictionary{}, kEventTime, 1, 2, flag);
  executor_.runAll();
  EXPECT_EQ(eventsAtServer(), (std::vector{1, 2, 3, 4}));
}

// States are for the client to see; a dashboard gets every event.
TEST_F(DashboardBackendTest, EventsAreSentInEveryState) {
  const auto backend = make(profile());
  for (const int32_t state : {ZunBackendStateAwaitingUserInfo, ZunBackendStateDisabled,
                              ZunBackendStateEnabled, ZunBackendStateSampledOut}) {
    backend->setState(state);
    EXPECT_TRUE(sendEvent(*backend)) << state;
    EXPECT_EQ(eventsAtServer().size(), 1U) << state;
    EXPECT_EQ(backend->state(), state);
  }
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled) << "whatever it was";
}

TEST_F(DashboardBackendTest, ThereMayBeNoMemoryForADatagram) {
  const auto backend = make(profile());
  refusesMemory = true;
  const auto record = backend->sendMessage(Dictionary{}, kEventTime, 1, 2, 0);
  refusesMemory = false;
  EXPECT_EQ(record, std::nullopt);
  expectErrors({"DashboardBackend(sendMessage): can't malloc."});
  executor_.runAll();
  EXPECT_EQ(server_.receiveIfThere(), std::nullopt);
}

TEST_F(DashboardBackendTest, ADeviceWithoutIdentifierSendsZeros) {
  auto backend = make(profile());
  backend->setUdid("");
  EXPECT_EQ(sendEvent(*backend, {}), "1000.120  127.0.0.1 KF     3    77     1   200     9 ");
  EXPECT_EQ(datagram().substr(20, 40), std::string(40, '\0'));
}

TEST_F(DashboardBackendTest, HostileValuesAreSentWithinBounds) {
  const auto backend = make(profile());
  sendEvent(*backend,
            {{"newlines", "\n\n\n"}, {"equals", "===="}, {"slashes", "\\\\"}, {"none", Dictionary{}}});
  EXPECT_EQ(datagram().substr(64), " slashes=\\\\\\\\ newlines=empty equals=\\=\\=\\=\\= none=null");
  const auto record = sendEvent(*backend, {{"large", std::string(100'000, '\xC3')}});
  EXPECT_EQ(datagram().size(), 1087U);
  EXPECT_TRUE(isValidUTF8(record.value()));
}

TEST_F(DashboardBackendTest, PlainDatagramsAreSentOnce) {
  const auto backend = make(profile());
  sendEvent(*backend);
  for (int i = 0; i < 30; ++i) tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

// A client that sends faster than the queue takes helps it, and nothing is lost.
TEST_F(DashboardBackendTest, AFloodOfEventsIsSentByItsOwnCaller) {
  const auto backend = make(profile());
  for (int i = 0; i < 1000; ++i) backend->sendMessage(Dictionary{}, kEventTime, 1, 2, 0);
  EXPECT_GE(eventsAtServer().size(), 1000 - DashboardLink::kMaximumQueued);
}

// A server that is away

TEST_F(DashboardBackendTest, DatagramsToAServerThatIsAwayAreSentAllTheSame) {
  const uint16_t port = server_.port();
  const auto backend = make(profile());
  server_.close();
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(sendEvent(*backend));
  UDPTestServer back(port);
  sendEvent(*backend);
  EXPECT_EQ(eventNumberOf(back.receiveIfThere().value_or("")), 11);
  tick();
  EXPECT_EQ(back.receiveIfThere(), std::nullopt) << "what was refused is not sent again";
}

TEST_F(DashboardBackendTest, AReliableBackendReachesAServerThatComesBack) {
  const uint16_t port = server_.port();
  const auto backend = make(reliableProfile());
  server_.close();
  sendEvent(*backend);
  tick();
  UDPTestServer back(port);
  tick();
  EXPECT_EQ(eventNumberOf(back.receiveIfThere().value_or("")), 1);
}

}  // namespace
}  // namespace zun
