// What hierarchies cost: copies of many sessions' messages for one client, and a thousand
// sessions under one token.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <thread>
#include <vector>

#include "BenchPlatform.h"
#include "daemon/ReportingdAgent.h"
#include "linux/dbus/DBusOutput.h"
#include "session/ClientSessionReplyInterface.h"
#include "zunreporting/Keys.h"

namespace zun {
namespace {

using namespace zunreporting;

/// A connection whose calls are encoded and written to a socket, as the daemon's are. The
/// peer reads and forgets.
class WritingConnection final : public ServiceConnection {
 public:
  explicit WritingConnection(SystemLog& log) {
    [[maybe_unused]] const int made = ::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_.data());
    output_ = std::make_shared<DBusOutput>(sockets_[0], wake_, DBusLimits{}, DBusOutputLimits{},
                                           std::make_shared<MemoryBudget>(0), BudgetHolder{}, log, "bench");
    reader_ = std::thread([this] {
      std::array<char, 65536> buffer{};
      while (::recv(sockets_[1], buffer.data(), buffer.size(), 0) > 0) {
      }
    });
    writer_ = std::thread([this] { writeWhatIsLeft(); });
  }
  ~WritingConnection() override {
    ends_ = true;
    output_->wake();
    writer_.join();
    output_->close();
    ::shutdown(sockets_[0], SHUT_RDWR);
    reader_.join();
    for (const int descriptor : sockets_) ::close(descriptor);
  }

  struct Encoded final : EncodedCall {
    size_t member = 0;
    std::string body;
  };
  static constexpr std::string_view kSignature = "aa{sv}dqqaa{sv}";

  Result<std::shared_ptr<const EncodedCall>, std::string> encodeCall(size_t member,
                                                                     const Array& arguments) const override {
    auto call = std::make_shared<Encoded>();
    call->member = member;
    call->body = *encodeDBusBody(kSignature, arguments);
    return std::shared_ptr<const EncodedCall>(std::move(call));
  }
  std::optional<std::string> callRemote(const EncodedCall& call) override {
    const auto& encoded = static_cast<const Encoded&>(call);
    const ServiceInterface& interface = clientSessionReplyInterface();
    DBusHeader header;
    header.flags = kDBusFlagNoReplyExpected;
    header.path = interface.objectPath;
    header.interface = interface.name;
    header.member = interface.members[encoded.member].name;
    header.signature = kSignature;
    auto failure = output_->sendCall(header, encoded.body);
    ++(failure ? dropped : sent);
    return failure;
  }
  std::optional<bool> booleanEntitlement(std::string_view) const override { return true; }
  BudgetHolder budgetHolder() const override { return {}; }
  BudgetHolder programHolder() const override { return {}; }
  bool isWanted() const override { return true; }
  ClientClaims claims(std::string_view) const override { return {}; }
  uint32_t user() const override { return 0; }
  std::string description() const override { return "bench"; }
  std::shared_ptr<SandboxExtensions> sandboxExtensions() const override { return nullptr; }
  void setExportedInterface(const ServiceInterface&) override {}
  void setRemoteObjectInterface(const ServiceInterface&) override {}
  void setExportedObject(std::shared_ptr<ExportedObject>) override {}
  void setInterruptionHandler(UniqueFunction<void()>) override {}
  void setInvalidationHandler(UniqueFunction<void()>) override {}
  void resume() override {}
  void invalidate() override {}

  std::atomic<int64_t> sent{0};
  std::atomic<int64_t> dropped{0};

 private:
  /// The connection's thread: what the socket did not take at once.
  void writeWhatIsLeft() {
    while (!ends_) {
      const short writing = output_->queuedBytes() > 0 ? POLLOUT : 0;
      std::array<pollfd, 2> polled{{{sockets_[0], writing, 0}, {wake_.get(), POLLIN, 0}}};
      ::poll(polled.data(), polled.size(), -1);
      wake_.take();
      output_->flush();
    }
  }

  std::array<int, 2> sockets_{};
  const WakeDescriptor wake_;
  std::shared_ptr<DBusOutput> output_;
  std::atomic<bool> ends_{false};
  std::thread reader_;
  std::thread writer_;
};

/// A storebag as large as such are, of which one backend is made. It never reports: no
/// client entry names the benchmark's client.
Dictionary storebag() {
  Array clients;
  for (int number = 0; number < 40; ++number) {
    Array filters;
    for (int filter = 0; filter < 12; ++filter)
      filters.append(Dictionary{{"key", "some.key.of.an.event"}, {"action", "remove"}});
    clients.append(Dictionary{{"client_name", "client " + std::to_string(number)},
                              {"locale_whitelist", Array{"DE", "US", "GB"}},
                              {"filters", std::move(filters)},
                              {"post_url", "https://127.0.0.1:1/a/rather/long/path"}});
  }
  return {{"httpPost", Dictionary{{"clients", std::move(clients)}}}};
}

class OneStorebag final : public StorebagFetcher {
 public:
  StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t) override {
    return {.section = storebag(), .maxAgeSeconds = 3600, .version = "1.0"};
  }
  void outcomeNoted(std::string_view /*name*/, const StorebagFetchOutcome& /*outcome*/) override {}
  void cancelFetches() override {}
  std::optional<Date> modificationDateOfStorebagFile(std::string_view) const override { return std::nullopt; }
};

class Hierarchy final : public BenchPlatform {
 public:
  ~Hierarchy() {
    for (auto& session : sessions) end(session);
  }

  static Dictionary info(uint32_t number, uint32_t level, bool isStandalone = false) {
    Dictionary info{{kZunReportingSessionInfoSessionID, number},
                    {kZunReportingSessionInfoClientType, 7},
                    {kZunReportingSessionInfoRequireUserInfo, true}};
    if (isStandalone) return info;
    info.set(kZunReportingSessionInfoHierarchyToken,
             Dictionary{{kZunReportingHierarchyTokenTokenID, "0d3b7c54-9b0e-4b8f-8a51-4f2f5b2f6c11"},
                        {kZunReportingHierarchyTokenLevel, level}});
    return info;
  }
  static void configure(ReportingdSession& session, const Dictionary& info, bool isAggregator = false) {
    static const Dictionary kUser{{kZunReportingUserInfoClientName, "Camera"},
                                  {kZunReportingUserInfoServiceName, "RearCamera"}};
    session.setSessionInfo(info, kUser, {}, isAggregator);
  }
  std::shared_ptr<ReportingdSession> start(const Dictionary& info, bool isAggregator = false) {
    auto session = agent->createReportingSessionWithDelegate(agent, connection);
    configure(*session, info, isAggregator);
    session->startConfigWithCompletionHandler(nullptr);
    return session;
  }
  void end(std::shared_ptr<ReportingdSession>& session) {
    agent->invalidateReportingSession(session);
    session.reset();
  }
  /// One session at level 0, the others below it.
  void startFamily(uint32_t count, bool isAggregated) {
    for (uint32_t number = 0; number < count; ++number)
      sessions.push_back(start(info(number, number == 0 ? 0 : 1), isAggregated && number == 0));
  }

  std::shared_ptr<WritingConnection> connection = std::make_shared<WritingConnection>(log);
  OneStorebag fetcher;
  std::shared_ptr<ReportingdAgent> agent = ReportingdAgent::create(services, fetcher);
  std::vector<std::shared_ptr<ReportingdSession>> sessions;
};

/// Seven entries such as an event has.
Dictionary message() {
  return {{Value(kZunReportingMessageParametersCategory), 901},
          {Value(kZunReportingMessageParametersType), 3},
          {Value(kZunReportingMessageParametersPayload),
           Dictionary{{"callID", "6F1E0E4C-3B57-4E0A-9C6C-4B2D4C9C3F11"},
                      {"reason", "remote hangup"},
                      {"durationSeconds", 182.25},
                      {"packetsSent", 91125},
                      {"packetsLost", 248},
                      {"codec", "AAC-ELD"},
                      {"isVideo", true}}}};
}

// A hundred sessions below one aggregator, from one thread and from two.
void BM_FanInFrom100Sessions(benchmark::State& state) {
  static std::unique_ptr<Hierarchy> hierarchy;
  if (state.thread_index() == 0) {
    hierarchy = std::make_unique<Hierarchy>();
    hierarchy->startFamily(101, /*isAggregated=*/true);
  }
  const Dictionary sent = message();
  size_t next = static_cast<size_t>(state.thread_index());
  for (auto _ : state) {
    hierarchy->sessions[1 + next % 100]->sendMessageWithDictionary(sent, nullptr);
    next += static_cast<size_t>(state.threads());
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) {
    const auto all = static_cast<double>(hierarchy->connection->sent + hierarchy->connection->dropped);
    state.counters["dropped"] = static_cast<double>(hierarchy->connection->dropped) / all;
    hierarchy.reset();
  }
}
BENCHMARK(BM_FanInFrom100Sessions)->Threads(1)->Threads(2)->UseRealTime();

// A session comes, starts and ends while eight others send large messages, of which an
// aggregator has copies.
void BM_SessionBesideBusyHierarchy(benchmark::State& state) {
  Hierarchy hierarchy;
  hierarchy.startFamily(9, /*isAggregated=*/true);
  Dictionary payload;
  for (int number = 0; number < 1000; ++number)
    payload.set("a key of an event, " + std::to_string(number), number);
  const Dictionary sent{{Value(kZunReportingMessageParametersCategory), 901},
                        {Value(kZunReportingMessageParametersType), 3},
                        {Value(kZunReportingMessageParametersPayload), payload}};
  std::atomic<bool> ends{false};
  std::vector<std::thread> senders;
  for (size_t number = 1; number < hierarchy.sessions.size(); ++number) {
    senders.emplace_back([&ends, &sent, session = hierarchy.sessions[number]] {
      while (!ends) session->sendMessageWithDictionary(sent, nullptr);
    });
  }
  for (auto _ : state) {
    auto session = hierarchy.start(Hierarchy::info(5000, 0, /*isStandalone=*/true));
    hierarchy.end(session);
  }
  ends = true;
  for (std::thread& sender : senders) sender.join();
}
BENCHMARK(BM_SessionBesideBusyHierarchy)->UseRealTime()->Unit(benchmark::kMicrosecond);

// A message that nobody aggregates, of a session without and with a hierarchy.
void BM_MessageOfStandaloneSession(benchmark::State& state) {
  Hierarchy hierarchy;
  hierarchy.sessions.push_back(hierarchy.start(Hierarchy::info(1, 0, /*isStandalone=*/true)));
  const Dictionary sent = message();
  for (auto _ : state) hierarchy.sessions[0]->sendMessageWithDictionary(sent, nullptr);
}
BENCHMARK(BM_MessageOfStandaloneSession);

void BM_MessageInFamilyWithoutAggregator(benchmark::State& state) {
  Hierarchy hierarchy;
  hierarchy.startFamily(static_cast<uint32_t>(state.range(0)), /*isAggregated=*/false);
  const Dictionary sent = message();
  for (auto _ : state) hierarchy.sessions.back()->sendMessageWithDictionary(sent, nullptr);
}
BENCHMARK(BM_MessageInFamilyWithoutAggregator)->Arg(10)->Arg(1000);

// The same where every session has a level of its own: all of them are ancestors.
void BM_MessageAtTheEndOfAChain(benchmark::State& state) {
  Hierarchy hierarchy;
  for (uint32_t level = 0; level < state.range(0); ++level)
    hierarchy.sessions.push_back(hierarchy.start(Hierarchy::info(level, level)));
  const Dictionary sent = message();
  for (auto _ : state) hierarchy.sessions.back()->sendMessageWithDictionary(sent, nullptr);
}
BENCHMARK(BM_MessageAtTheEndOfAChain)->Arg(10)->Arg(250)->Arg(1000);

// A member of a family of so many says anew who it is: it leaves, and joins at the end.
void BM_Join(benchmark::State& state) {
  Hierarchy hierarchy;
  const auto count = static_cast<uint32_t>(state.range(0));
  hierarchy.startFamily(count, /*isAggregated=*/false);
  uint32_t number = 0;
  for (auto _ : state) {
    number = number % (count - 1) + 1;
    Hierarchy::configure(*hierarchy.sessions[number], Hierarchy::info(number, 1));
  }
}
BENCHMARK(BM_Join)->Arg(10)->Arg(1000);

// A change at the top, which reaches every session below.
void BM_UpdateDownstream(benchmark::State& state) {
  Hierarchy hierarchy;
  hierarchy.startFamily(static_cast<uint32_t>(state.range(0)), /*isAggregated=*/false);
  for (auto _ : state) hierarchy.agent->updateDownstreamSessions(*hierarchy.sessions[0]);
}
BENCHMARK(BM_UpdateDownstream)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);

// A session comes, starts and ends while so many others live: its health report has all.
void BM_SessionFromStartToEnd(benchmark::State& state) {
  Hierarchy hierarchy;
  hierarchy.startFamily(static_cast<uint32_t>(state.range(0)), /*isAggregated=*/false);
  for (auto _ : state) {
    auto session = hierarchy.start(Hierarchy::info(5000, 1));
    hierarchy.end(session);
  }
}
BENCHMARK(BM_SessionFromStartToEnd)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

// The report alone.
void BM_HealthReport(benchmark::State& state) {
  Hierarchy hierarchy;
  hierarchy.startFamily(static_cast<uint32_t>(state.range(0)), /*isAggregated=*/false);
  for (auto _ : state) {
    Dictionary payload;
    const ReportingAgentState snapshot = hierarchy.agent->copyReportingAgentState();
    hierarchy.sessions[0]->addSessionsAccumulatedHealthInfoToPayload(payload, snapshot.sessions,
                                                                     snapshot.cachedStorebags);
    benchmark::DoNotOptimize(payload);
  }
}
BENCHMARK(BM_HealthReport)->Arg(1)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zun
