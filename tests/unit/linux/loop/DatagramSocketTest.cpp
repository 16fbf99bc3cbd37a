#include "platform/DatagramSocket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>

#include "linux/loop/UDPSockets.h"
#include "linux/loop/WorkerPool.h"
#include "support/LoopThread.h"
#include "support/UDPTestServer.h"

namespace zun {
namespace {

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

std::array<uint8_t, 4> quad(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return {a, b, c, d};
}

TEST(DottedQuadTest, AddressesAreTakenInEveryUsualForm) {
  EXPECT_EQ(parseDottedQuad("192.168.7.20"), quad(192, 168, 7, 20));
  EXPECT_EQ(parseDottedQuad("127.1"), quad(127, 0, 0, 1));
  EXPECT_EQ(parseDottedQuad("0x7f000001"), quad(127, 0, 0, 1));
}

TEST(DottedQuadTest, WhatIsNoAddressIsAllOnes) {
  for (const char* text : {"", "localhost", "1.2.3.4.5", "256.1.1.1", "::1", "-1"}) {
    EXPECT_EQ(parseDottedQuad(text), quad(255, 255, 255, 255)) << text;
  }
}

class DatagramSocketTest : public ::testing::Test {
 protected:
  std::unique_ptr<DatagramSocket> make() {
    auto made = sockets_.makeSocket();
    return made ? std::move(*made) : nullptr;
  }
  std::unique_ptr<DatagramSocket> connected() {
    auto socket = make();
    EXPECT_EQ(socket->bindToAnyAddress(), std::nullopt);
    EXPECT_EQ(socket->connect(server_.address()), std::nullopt);
    return socket;
  }
  /// What is there, or the errno.
  static std::string received(DatagramSocket& socket) {
    std::array<std::byte, 64> buffer{};
    const auto size = socket.receive(buffer);
    return size ? std::string(asTextOf(buffer, *size)) : "errno " + std::to_string(size.error().code);
  }
  static std::string asTextOf(const std::array<std::byte, 64>& buffer, size_t size) {
    return {reinterpret_cast<const char*>(buffer.data()), size};
  }

  WorkerPool pool_{2};
  LoopThread loopThread_;
  UDPSockets sockets_{loopThread_.loop()};
  std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("reads", pool_);
  UDPTestServer server_;
};

TEST_F(DatagramSocketTest, DatagramsGoToThePeerAndBack) {
  const auto socket = connected();
  const auto sent = socket->send(bytesOf("hello"));
  ASSERT_TRUE(sent);
  EXPECT_EQ(*sent, 5U);
  EXPECT_EQ(server_.receive(), "hello");
  server_.reply("world");
  EXPECT_EQ(received(*socket), "world");
}

TEST_F(DatagramSocketTest, ReceivingNeverWaits) {
  const auto socket = connected();
  EXPECT_EQ(received(*socket), "errno " + std::to_string(EAGAIN));
}

TEST_F(DatagramSocketTest, ADatagramIsCutToTheBuffer) {
  const auto socket = connected();
  ASSERT_TRUE(socket->send(bytesOf("x")));
  ASSERT_TRUE(server_.receive());
  server_.reply(std::string(100, 'y'));
  EXPECT_EQ(received(*socket), std::string(64, 'y'));
  EXPECT_EQ(received(*socket), "errno " + std::to_string(EAGAIN));
}

TEST_F(DatagramSocketTest, WhatComesFromAnotherAddressIsDropped) {
  const auto socket = connected();
  ASSERT_TRUE(socket->send(bytesOf("x")));
  ASSERT_TRUE(server_.receive());
  UDPTestServer stranger;
  server_.replyFrom(stranger, "forged");
  server_.reply("genuine");
  EXPECT_EQ(received(*socket), "genuine");
}

TEST_F(DatagramSocketTest, ARefusedDatagramCountsAsSent) {
  const auto socket = connected();
  server_.close();
  for (int i = 0; i < 10; ++i) {
    const auto sent = socket->send(bytesOf("lost"));
    ASSERT_TRUE(sent) << sent.error().description;
    EXPECT_EQ(*sent, 4U);
  }
}

// The refusal of an earlier datagram must not cost the next one its way.
TEST_F(DatagramSocketTest, ADatagramAfterARefusalArrivesOnceTheServerIsBack) {
  const auto socket = connected();
  const uint16_t port = server_.port();
  server_.close();
  ASSERT_TRUE(socket->send(bytesOf("lost")));
  UDPTestServer back(port);
  ASSERT_TRUE(socket->send(bytesOf("found")));
  EXPECT_EQ(back.receive(), "found");
}

TEST_F(DatagramSocketTest, ARefusalIsReceivedOnceAsAnError) {
  const auto socket = connected();
  server_.close();
  ASSERT_TRUE(socket->send(bytesOf("lost")));
  EXPECT_EQ(received(*socket), "errno " + std::to_string(ECONNREFUSED));
  EXPECT_EQ(received(*socket), "errno " + std::to_string(EAGAIN));
}

TEST_F(DatagramSocketTest, TheAllOnesAddressCannotBeConnectedTo) {
  const auto socket = make();
  const auto error = socket->connect({parseDottedQuad("nonsense"), {0, 80}});
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kPOSIXErrorDomain);
  EXPECT_EQ(error->code, EACCES);
}

TEST_F(DatagramSocketTest, ASocketIsBoundOnce) {
  const auto socket = make();
  EXPECT_EQ(socket->bindToAnyAddress(), std::nullopt);
  const auto error = socket->bindToAnyAddress();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, EINVAL);
}

TEST_F(DatagramSocketTest, AClosedSocketDoesNothing) {
  const auto socket = connected();
  socket->close();
  socket->close();
  const auto sent = socket->send(bytesOf("x"));
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().code, EBADF);
  EXPECT_EQ(received(*socket), "errno " + std::to_string(EBADF));
  EXPECT_EQ(socket->startReadSource(
                queue_, [] {}, nullptr),
            nullptr);
}

TEST_F(DatagramSocketTest, AMachineWithoutDescriptorsGivesAnError) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto made = sockets_.makeSocket();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, EMFILE);
}

// Connections, transfers and files need some even when every session has a socket.
TEST_F(DatagramSocketTest, TheLastQuarterOfTheDescriptorsIsNotForSockets) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const FileDescriptor lowestFree(::dup(0));
  const auto next = static_cast<rlim_t>(lowestFree.get()) + 1;
  const rlimit nearlyUsedUp{next + 2, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &nearlyUsedUp), 0);
  const auto refused = sockets_.makeSocket();
  const FileDescriptor other(::dup(0));
  const rlimit twice{next * 2, before.rlim_max};
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &twice), 0);
  const auto made = sockets_.makeSocket();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, EMFILE);
  EXPECT_TRUE(other.isOpen());
  EXPECT_TRUE(made);
}

class ReadSourceTest : public DatagramSocketTest {
 protected:
  void TearDown() override {
    if (source_ == nullptr) return;
    source_->cancel();
    queue_->sync([] {});
  }

  std::unique_ptr<DatagramSocket> socket_ = connected();
  std::shared_ptr<ReadSource> source_;
};

TEST_F(ReadSourceTest, TellsOfEachDatagramOnTheQueue) {
  std::promise<void> all;
  std::string text;
  source_ = socket_->startReadSource(
      queue_,
      [&] {
        EXPECT_TRUE(queue_->isCurrent());
        text += received(*socket_);  // one at a time: the rest is told of again
        if (text.size() == 5) all.set_value();
      },
      nullptr);
  ASSERT_NE(source_, nullptr);
  ASSERT_TRUE(socket_->send(bytesOf("x")));
  ASSERT_TRUE(server_.receive());
  for (const char* part : {"a", "b", "c", "d", "e"}) server_.reply(part);
  all.get_future().wait();
  EXPECT_EQ(text, "abcde");
}

TEST_F(ReadSourceTest, WhatWasThereBeforeIsToldOfToo) {
  ASSERT_TRUE(socket_->send(bytesOf("x")));
  ASSERT_TRUE(server_.receive());
  server_.reply("early");
  std::promise<std::string> text;
  source_ = socket_->startReadSource(
      queue_, [&] { text.set_value(received(*socket_)); }, nullptr);
  EXPECT_EQ(text.get_future().get(), "early");
}

// The one error is told of once: reading has taken it, and nothing fires for ever.
TEST_F(ReadSourceTest, ARefusalFiresOnce) {
  std::atomic<int> firings = 0;
  std::promise<std::string> first;
  source_ = socket_->startReadSource(
      queue_,
      [&] {
        const std::string what = received(*socket_);
        if (++firings == 1) first.set_value(what);
      },
      nullptr);
  server_.close();
  ASSERT_TRUE(socket_->send(bytesOf("lost")));
  EXPECT_EQ(first.get_future().get(), "errno " + std::to_string(ECONNREFUSED));
  // Another socket's datagram goes the same way behind whatever is still to come.
  UDPTestServer other;
  const auto second = make();
  ASSERT_EQ(second->connect(other.address()), std::nullopt);
  ASSERT_TRUE(second->send(bytesOf("x")));
  ASSERT_TRUE(other.receive());
  std::promise<void> told;
  const auto secondSource = second->startReadSource(
      queue_,
      [&] {
        (void)received(*second);
        told.set_value();
      },
      nullptr);
  other.reply("y");
  told.get_future().wait();
  secondSource->cancel();
  queue_->sync([&] { EXPECT_EQ(firings, 1); });
}

// While the handler has not run, the loop must not turn round and round.
TEST_F(ReadSourceTest, FiresOnceWhileItsHandlerHasNotReturned) {
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<int> firings = 0;
  source_ = socket_->startReadSource(
      queue_,
      [&] {
        if (++firings > 1) return;
        entered.set_value();
        leave.get_future().wait();
        (void)received(*socket_);
        (void)received(*socket_);
      },
      nullptr);
  ASSERT_TRUE(socket_->send(bytesOf("x")));
  ASSERT_TRUE(server_.receive());
  server_.reply("one");
  entered.get_future().wait();
  server_.reply("two");
  std::promise<void> loopWentOn;
  loopThread_.loop().post([&] { loopThread_.loop().post([&] { loopWentOn.set_value(); }); });
  loopWentOn.get_future().wait();
  EXPECT_EQ(firings, 1);
  leave.set_value();
  queue_->sync([&] { EXPECT_EQ(firings, 1); });
}

TEST_F(ReadSourceTest, CancelledItNeverFiresAgainAndSaysSoOnce) {
  std::atomic<int> firings = 0;
  std::atomic<int> cancellations = 0;
  std::promise<void> cancelled;
  auto source = socket_->startReadSource(
      queue_, [&] { ++firings; },
      [&] {
        EXPECT_TRUE(queue_->isCurrent());
        if (++cancellations == 1) cancelled.set_value();
        socket_->close();
      });
  source->cancel();
  source->cancel();
  cancelled.get_future().wait();
  queue_->sync([] {});
  EXPECT_EQ(cancellations, 1);
  EXPECT_EQ(firings, 0);
}

TEST_F(ReadSourceTest, MayBeCancelledByItsOwnHandler) {
  std::promise<void> cancelled;
  std::shared_ptr<ReadSource> source;
  std::atomic<int> firings = 0;
  queue_->sync([&] {
    source = socket_->startReadSource(
        queue_,
        [&] {
          ++firings;
          source->cancel();  // with the datagram still there
        },
        [&] { cancelled.set_value(); });
  });
  ASSERT_TRUE(socket_->send(bytesOf("x")));
  ASSERT_TRUE(server_.receive());
  server_.reply("y");
  cancelled.get_future().wait();
  queue_->sync([] {});
  EXPECT_EQ(firings, 1);
}

TEST_F(ReadSourceTest, TheSourceKeepsItsHandlersAndLetsGoOfThemWhenCancelled) {
  auto kept = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = kept;
  std::promise<void> cancelled;
  auto source = socket_->startReadSource(
      queue_, [kept] {}, [&] { cancelled.set_value(); });
  kept.reset();
  EXPECT_FALSE(watched.expired());
  source->cancel();
  cancelled.get_future().wait();
  queue_->sync([] {});
  EXPECT_TRUE(watched.expired());
}

TEST(ReadSourceLifetimeTest, ALoopThatEndsLetsGoOfItsSources) {
  WorkerPool pool{1};
  const auto queue = SerialQueue::create("reads", pool);
  auto kept = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = kept;
  std::shared_ptr<ReadSource> source;
  std::unique_ptr<DatagramSocket> socket;
  {
    LoopThread loopThread;
    UDPSockets sockets(loopThread.loop());
    socket = std::move(*sockets.makeSocket());
    source = socket->startReadSource(
        queue, [kept] {}, nullptr);
    kept.reset();
    ASSERT_NE(source, nullptr);
  }
  source->cancel();  // does nothing any more, and does no harm
  queue->sync([] {});
  source.reset();
  EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace zun
