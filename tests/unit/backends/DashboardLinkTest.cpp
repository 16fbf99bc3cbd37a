#include "backends/DashboardLink.h"

#include <cerrno>
#include <functional>

#include "DashboardTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

/// A real socket with faults that the system rarely has. Counts what it receives.
class FaultySocket final : public DatagramSocket {
 public:
  struct Faults {
    bool bind = false;
    bool readSource = false;
    bool send = false;
    bool cutsDatagrams = false;
    int received = 0;  // on the queue
  };

  FaultySocket(std::unique_ptr<DatagramSocket> real, Faults& faults)
      : real_(std::move(real)), faults_(faults) {}

  std::optional<Error> bindToAnyAddress() override {
    if (faults_.bind) return Error{kPOSIXErrorDomain, EADDRINUSE, "in use"};
    return real_->bindToAnyAddress();
  }
  std::optional<Error> connect(const IPv4SocketAddress& peer) override { return real_->connect(peer); }
  Result<size_t, Error> send(std::span<const std::byte> datagram) override {
    if (faults_.send) return Result<size_t, Error>::failure({kPOSIXErrorDomain, ENETUNREACH, "away"});
    return real_->send(faults_.cutsDatagrams ? datagram.first(datagram.size() - 1) : datagram);
  }
  Result<size_t, Error> receive(std::span<std::byte> buffer) override {
    auto received = real_->receive(buffer);
    if (received) ++faults_.received;
    return received;
  }
  std::shared_ptr<ReadSource> startReadSource(std::shared_ptr<SerialQueue> queue,
                                              UniqueFunction<void()> readable,
                                              UniqueFunction<void()> cancelled) override {
    if (faults_.readSource) return nullptr;
    return real_->startReadSource(std::move(queue), std::move(readable), std::move(cancelled));
  }
  void close() override { real_->close(); }

 private:
  const std::unique_ptr<DatagramSocket> real_;
  Faults& faults_;
};

class DashboardLinkTest : public DashboardTest {
 protected:
  std::shared_ptr<DashboardLink> open(bool isReliable) {
    auto made = platform_.sockets.makeSocket();
    auto socket = std::make_unique<FaultySocket>(std::move(*made), faults_);
    return DashboardLink::open(platform_.services, std::move(socket),
                               {.address = server_.address(), .isReliable = isReliable});
  }
  void sendOn(DashboardLink& link, uint16_t eventNumber) {
    DashboardHeader header;
    header.eventNumber = eventNumber;
    link.send(*DashboardDatagram::make(header, {}), eventNumber);
    executor_.runAll();
  }

  FaultySocket::Faults faults_;
};

TEST_F(DashboardLinkTest, ASocketThatCannotBeBoundIsToldOfAndUsed) {
  faults_.bind = true;
  const auto link = open(/*isReliable=*/true);
  expectErrors({"DashboardBackend(useReliableUDP): can't bind socket, " + std::to_string(EADDRINUSE)});
  ASSERT_NE(link, nullptr);
  sendOn(*link, 1);
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  link->end();
}

TEST_F(DashboardLinkTest, WithoutAReadSourceAcknowledgementsAreNotHeard) {
  faults_.readSource = true;
  const auto link = open(/*isReliable=*/true);
  expectErrors({"DashboardBackend(useReliableUDP): can't create read source"});
  ASSERT_NE(link, nullptr);
  sendOn(*link, 1);
  server_.reply(server_.receiveIfThere().value_or(""));
  tick();
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  link->end();
}

TEST_F(DashboardLinkTest, APlainDatagramThatCouldNotBeSentIsSentOnceLater) {
  const auto link = open(/*isReliable=*/false);
  faults_.send = true;
  sendOn(*link, 1);
  tick();
  faults_.send = false;
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  for (int i = 0; i < 20; ++i) tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  link->end();
}

// Its schedule begins when it has gone out.
TEST_F(DashboardLinkTest, AReliableDatagramThatCouldNotBeSentIsSentLaterAndThenRetransmitted) {
  const auto link = open(/*isReliable=*/true);
  faults_.cutsDatagrams = true;
  sendOn(*link, 1);
  EXPECT_EQ(server_.receiveAllThere().size(), 1U) << "in part";
  faults_.cutsDatagrams = false;
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  link->end();
}

TEST_F(DashboardLinkTest, ARetransmissionThatFailsIsTriedAgainOnTheNextTick) {
  const auto link = open(/*isReliable=*/true);
  sendOn(*link, 1);
  server_.receiveAllThere();
  tick();
  faults_.send = true;
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  faults_.send = false;
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  tick();
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  tick();  // the third since
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  link->end();
}

TEST_F(DashboardLinkTest, ManyAcknowledgementsAtOnceAreAllHeard) {
  const auto link = open(/*isReliable=*/true);
  for (uint16_t number = 1; number <= 50; ++number) sendOn(*link, number);
  const auto sent = server_.receiveAllThere();
  ASSERT_EQ(sent.size(), 50U);
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    for (const std::string& each : sent) server_.reply(each);
  }
  while (faults_.received < kRounds * 50) {
    runNextJobs();
    if (HasFatalFailure()) return;
  }
  for (int i = 0; i < 20; ++i) tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  link->end();
}

// Timers, read source and queued work keep the link: each of them has to let go.
TEST_F(DashboardLinkTest, NothingRunsOnAfterTheEnd) {
  const auto lastResort = [this] {
    tick();
    tick(9500ms);
  };
  const auto acknowledged = [this] {
    tick();
    acknowledge(server_.receiveAllThere().front());
    tick();
  };
  const std::vector<std::function<void(DashboardLink&)>> ends{
      [](DashboardLink& link) { link.end(); },
      [&](DashboardLink& link) {
        acknowledge(server_.receiveAllThere().front());
        link.cleanup();
      },
      [&](DashboardLink& link) {
        link.cleanup();
        executor_.runAll();
        acknowledged();
      },
      [&](DashboardLink& link) {
        link.cleanup();
        executor_.runAll();
        lastResort();
      }};
  for (size_t i = 0; i < ends.size(); ++i) {
    SCOPED_TRACE(i);
    auto link = open(/*isReliable=*/true);
    const std::weak_ptr<DashboardLink> weak = link;
    sendOn(*link, 1);
    ends[i](*link);
    executor_.runAll();
    link.reset();
    EXPECT_EQ(platform_.timers.running(), 0U);
    while (!weak.expired()) {  // the read source's end comes by way of its loop
      runNextJobs();
      if (HasFatalFailure()) return;
    }
    EXPECT_EQ(DashboardLink::awaitedCount(), 0U);
    server_.receiveAllThere();
  }
}

// Its period may be long, and a daemon that stops has nothing to wait for any more.
TEST_F(DashboardLinkTest, ALinkIsAwaitedUntilItsLastPacketIsAcknowledgedAndKeptUntilTheNextTick) {
  auto link = open(/*isReliable=*/true);
  sendOn(*link, 1);
  sendOn(*link, 2);
  const auto packets = server_.receiveAllThere();
  ASSERT_EQ(packets.size(), 2U);
  link->cleanup();
  link->cleanup();
  executor_.runAll();
  EXPECT_EQ(DashboardLink::awaitedCount(), 1U);
  acknowledge(packets[0]);
  EXPECT_EQ(DashboardLink::awaitedCount(), 1U);
  acknowledge(packets[1]);
  EXPECT_EQ(DashboardLink::awaitedCount(), 0U);
  EXPECT_EQ(platform_.timers.running(), 1U);
  tick();
  EXPECT_EQ(platform_.timers.running(), 0U);
}

TEST_F(DashboardLinkTest, OfWhatCannotBeSentTheLast50AreKept) {
  const auto link = open(/*isReliable=*/false);
  faults_.send = true;
  for (uint16_t number = 1; number <= 1000; ++number) sendOn(*link, number);
  faults_.send = false;
  tick();
  const auto numbers = eventsAtServer();
  ASSERT_EQ(numbers.size(), 50U);
  EXPECT_EQ(numbers.front(), 951);
  link->end();
}

}  // namespace
}  // namespace zun
