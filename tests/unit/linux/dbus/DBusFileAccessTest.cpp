#include <fcntl.h>
#include <sys/epoll.h>

#include <fstream>

#include "DBusPeer.h"
#include "support/DescriptorCount.h"
#include "support/DescriptorLimit.h"

namespace zun {
namespace {

constexpr const char* kInterface = "com.vantix.zunreportingd.FileAccess";

std::string issueCall(uint32_t serial = 1, uint32_t index = 0, uint32_t descriptors = 1) {
  return wireCall({.interface = kInterface,
                   .member = "issueExtension",
                   .signature = "h",
                   .serial = serial,
                   .descriptors = descriptors},
                  WireBytes().u32(index));
}

class DBusFileAccessTest : public DBusServiceTest {
 protected:
  void SetUp() override {
    DBusServiceTest::SetUp();
    std::ofstream(file_) << "what the client wrote";
  }
  FileDescriptor open(int flags = O_RDONLY) const {
    return FileDescriptor(::open(file_.c_str(), flags | O_CLOEXEC));
  }
  std::unique_ptr<RawClient> connectAndWait() {
    auto client = connect(/*withDescriptors=*/true);
    EXPECT_TRUE(delegate_.events->wait("accepted"));
    return client;
  }
  static std::string tokenOf(const std::optional<RawClient::Message>& message) {
    if (!message || !message->errorName.empty() || message->values.empty()) return "(no token)";
    return std::string(message->values[0].dataValue());
  }
  std::string issue(RawClient& client) {
    client.sendWithDescriptors(issueCall(), {open().get()});
    return tokenOf(client.receiveMessage());
  }
  static std::string contentOf(const SandboxExtension& extension) {
    std::array<char, 64> buffer{};
    const auto count = extension.read(0, buffer);
    return count ? std::string(buffer.data(), *count) : count.error().description;
  }
  void expectUsable(const std::string& token) {
    const auto consumed = delegate_.connection()->sandboxExtensions()->consume(token, file_);
    ASSERT_TRUE(consumed) << consumed.error().description;
    EXPECT_EQ(contentOf(**consumed), "what the client wrote");
  }
  /// The daemon closes a connection's descriptors a moment after the client sees its end.
  static void expectOpenDescriptors(size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (openDescriptors() != count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ(openDescriptors(), count);
  }

  const std::string file_ = scratch_.path("file");
};

TEST_F(DBusFileAccessTest, ADescriptorIsExchangedForATokenThatEndsWithAZeroByte) {
  start();
  const auto client = connectAndWait();
  const std::string token = issue(*client);
  EXPECT_EQ(token.size(), 33u);
  EXPECT_EQ(token.find('\0'), 32u);
  expectUsable(token);
  expectUsable(issue(*client).substr(0, 32));
}

TEST_F(DBusFileAccessTest, ATokenIsOfNoUseOnAnotherConnection) {
  start();
  const auto client = connectAndWait();
  const std::string token = issue(*client);
  const auto first = delegate_.connection();
  const auto other = connect(/*withDescriptors=*/true);
  ASSERT_TRUE(delegate_.events->wait("accepted", 2));
  EXPECT_FALSE(delegate_.connection()->sandboxExtensions()->consume(token, file_));
  EXPECT_TRUE(first->sandboxExtensions()->consume(token, file_));
}

TEST_F(DBusFileAccessTest, TheIndexPicksOneDescriptorAndTheOthersAreClosed) {
  start();
  const auto client = connectAndWait();
  const FileDescriptor file = open();
  const FileDescriptor unreadable = open(O_WRONLY);
  const size_t before = openDescriptors();
  client->sendWithDescriptors(issueCall(1, 2, 3), {unreadable.get(), unreadable.get(), file.get()});
  const std::string token = tokenOf(client->receiveMessage());
  EXPECT_EQ(issue(*client).size(), 33u);  // the call before is over
  EXPECT_EQ(openDescriptors(), before + 2);
  expectUsable(token);
}

TEST_F(DBusFileAccessTest, AnIndexWithoutADescriptorIsRefused) {
  start();
  const auto client = connectAndWait();
  for (const uint32_t index : {1u, 2u, 0x80000000u, 0xFFFFFFFFu}) {
    client->sendWithDescriptors(issueCall(1, index), {open().get()});
    EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.InvalidArgs") << index;
  }
  client->send(issueCall(1, 0, 0));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.InvalidArgs");
  expectUsable(issue(*client));
}

TEST_F(DBusFileAccessTest, ADescriptorThatIsNotOpenForReadingIsRefused) {
  start();
  const auto client = connectAndWait();
  for (const int flags : {O_WRONLY, O_PATH}) {
    client->sendWithDescriptors(issueCall(), {open(flags).get()});
    const auto message = client->receiveMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->errorName, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(message->values[0].stringValue(), "The descriptor is not open for reading");
  }
}

TEST_F(DBusFileAccessTest, UnusedTokensAreLimitedAndTheLogSaysSoOnce) {
  start();
  const auto client = connectAndWait();
  const size_t before = openDescriptors();
  std::string token;
  for (int count = 0; count < 32; ++count) token = issue(*client);
  for (int count = 0; count < 40; ++count) {
    client->sendWithDescriptors(issueCall(), {open().get()});
    EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.LimitsExceeded");
  }
  expectErrors({"listener: a file of " + peerName() +
                " is refused: 32 files have been handed over and not been used"});
  expectOpenDescriptors(before + 32);
  expectUsable(token);
  expectUsable(issue(*client));
}

TEST_F(DBusFileAccessTest, ManyCallsMayBeSentAtOnce) {
  start();
  const auto client = connectAndWait();
  const FileDescriptor file = open();
  for (uint32_t serial = 1; serial <= 32; ++serial) {
    client->sendWithDescriptors(issueCall(serial), {file.get()});
  }
  for (uint32_t serial = 1; serial <= 32; ++serial) {
    const auto message = client->receiveMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->header.replySerial, serial);
    expectUsable(tokenOf(message));
  }
}

TEST_F(DBusFileAccessTest, TheEndOfTheConnectionClosesWhatWasNotUsed) {
  start();
  const size_t before = openDescriptors();
  auto client = connectAndWait();
  const std::string token = issue(*client);
  auto used = delegate_.connection()->sandboxExtensions()->consume(issue(*client), file_);
  ASSERT_TRUE(used);
  const auto extensions = delegate_.connection()->sandboxExtensions();
  client->sendWithDescriptors(issueCall().substr(0, 40), {open().get(), open().get()});
  client.reset();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  EXPECT_FALSE(extensions->consume(token, file_));
  EXPECT_EQ(contentOf(**used), "what the client wrote");
  (*used).reset();
  expectOpenDescriptors(before);  // though this test still holds the connection
  EXPECT_NE(delegate_.connection(), nullptr);
}

TEST_F(DBusFileAccessTest, TheInterfaceIsListedBesideTheExportedOne) {
  start();
  const auto client = connectAndWait();
  client->send(wireCall({.interface = "org.freedesktop.DBus.Introspectable", .member = "Introspect"}));
  const auto message = client->receiveMessage();
  ASSERT_TRUE(message);
  const std::string_view xml = message->values[0].stringValue();
  for (const char* part :
       {R"(<interface name="com.vantix.test.Echo">)",
        R"(<interface name="com.vantix.zunreportingd.FileAccess">)", R"(<method name="issueExtension">)",
        R"(<arg name="file" type="h" direction="in"/>)",
        R"(<arg name="token" type="ay" direction="out"/>)"}) {
    EXPECT_NE(xml.find(part), std::string_view::npos) << part << " in\n" << xml;
  }
}

TEST_F(DBusFileAccessTest, TheInterfaceMayBeLeftOutAndTheTypesAreChecked) {
  start();
  const auto client = connectAndWait();
  const WireBytes index = WireBytes().u32(0);
  client->sendWithDescriptors(
      wireCall({.interface = "", .member = "issueExtension", .signature = "h", .descriptors = 1}, index),
      {open().get()});
  expectUsable(tokenOf(client->receiveMessage()));
  client->sendWithDescriptors(
      wireCall({.interface = kInterface, .member = "issueExtension", .signature = "u", .descriptors = 1},
               index),
      {open().get()});
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.InvalidArgs");
  client->send(wireCall({.interface = kInterface, .member = "Echo"}));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownMethod");
  client->send(wireCall({.path = "/com/vantix", .interface = kInterface, .member = "issueExtension"}));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownInterface");
}

// --- How descriptors arrive ---------------------------------------------------------

TEST_F(DBusFileAccessTest, ADescriptorMayComeWithAnyByteOfItsMessage) {
  start();
  const auto client = connectAndWait();
  const std::string call = issueCall();
  for (const size_t at : {size_t{0}, size_t{15}, size_t{16}, call.size() / 2, call.size() - 1}) {
    for (size_t byte = 0; byte < call.size(); ++byte) {
      if (byte == at) {
        client->sendWithDescriptors(call.substr(byte, 1), {open().get()});
      } else {
        client->send(call.substr(byte, 1));
      }
    }
    expectUsable(tokenOf(client->receiveMessage()));
  }
}

TEST_F(DBusFileAccessTest, ADescriptorThatItsMessageDoesNotClaimIsClosed) {
  start();
  const auto client = connectAndWait();
  const size_t before = openDescriptors();
  for (int round = 0; round < 40; ++round) {
    client->sendWithDescriptors(wireCall({.member = "Drop"}), {open().get()});
    EXPECT_EQ(errorName(*client), "com.vantix.zunreportingd.Error.NoReply");
  }
  expectOpenDescriptors(before);
  // No later message gets it.
  client->sendWithDescriptors(wireCall({.member = "Drop"}), {open().get()});
  EXPECT_EQ(errorName(*client), "com.vantix.zunreportingd.Error.NoReply");
  client->send(issueCall());
  EXPECT_TRUE(client->isEnded());
  expectErrors({"listener: " + peerName() +
                " sent a malformed message, closing its connection: it has fewer descriptors than its "
                "header says"});
}

TEST_F(DBusFileAccessTest, ARefusedMessageTakesItsDescriptorsWithIt) {
  options_.connection.messageLimits.maximumMessageBytes = 1000;
  start();
  const auto client = connectAndWait();
  const std::string tooLarge = wireCall({.member = "Describe", .signature = "s", .descriptors = 1},
                                        WireBytes().text(std::string(2000, 'x')));
  client->sendWithDescriptors(tooLarge + issueCall(), {open(O_WRONLY).get(), open().get()});
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.LimitsExceeded");
  expectUsable(tokenOf(client->receiveMessage()));
  expectErrors({"listener: " + peerName() + " sent a message of " + std::to_string(tooLarge.size()) +
                " bytes, 1000 are allowed"});
}

TEST_F(DBusFileAccessTest, DescriptorsOfRefusedMessagesAreClosed) {
  start();
  const auto client = connectAndWait();
  const size_t before = openDescriptors();
  client->sendWithDescriptors(wireCall({.member = "Nonsense", .descriptors = 2}),
                              {open().get(), open().get()});
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownMethod");
  // Too large: the second descriptor comes amid the bytes that are skipped.
  constexpr uint32_t kBodyBytes = 2 << 20;
  client->sendWithDescriptors(
      wireCall({.member = "Describe", .signature = "a{sv}", .descriptors = 2, .bodyBytes = kBodyBytes}),
      {open().get()});
  client->send(std::string(kBodyBytes / 2, '\0'));
  client->sendWithDescriptors(std::string(1, '\0'), {open().get()});
  client->send(std::string(kBodyBytes / 2 - 1, '\0'));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.LimitsExceeded");
  expectErrors({log_.linesOf(LogLevel::kError).at(0)});
  expectUsable(issue(*client));
  expectOpenDescriptors(before);
}

// A connection that held the client's end of itself would never end.
TEST_F(DBusFileAccessTest, ASocketIsNoFileAndEndsTheConnection) {
  start();
  const size_t before = openDescriptors();
  const std::string call = issueCall();
  for (const size_t bytes : {call.size(), call.size() / 2}) {
    auto client = connect(/*withDescriptors=*/true);
    client->sendWithDescriptors(call.substr(0, bytes), {client->descriptor()});
    client.reset();
    waitForConnections(0);
  }
  expectOpenDescriptors(before);
  const std::string line =
      "listener: " + peerName() + ": it passed a descriptor that is no file's, closing its connection";
  expectErrors({line, line});
}

// An io_uring instance, say, has files of its own; what stands for all of its kind here has none.
TEST_F(DBusFileAccessTest, WhatIsInNoFileSystemEndsTheConnection) {
  start();
  const FileDescriptor anonymous(::epoll_create1(EPOLL_CLOEXEC));
  const auto client = connect(/*withDescriptors=*/true);
  client->sendWithDescriptors(issueCall(), {open().get(), anonymous.get()});
  EXPECT_TRUE(client->isEnded());
  expectErrors(
      {"listener: " + peerName() + ": it passed a descriptor that is no file's, closing its connection"});
}

// However many files clients hand over, connections and transfers still find descriptors.
TEST_F(DBusFileAccessTest, FilesAreRefusedWhenNearlyAllDescriptorsAreInUse) {
  start();
  const auto client = connectAndWait();
  std::string token;
  {
    const FileDescriptor file = open();
    const int most = static_cast<int>(openDescriptors()) + 40;
    const DescriptorLimit limit(static_cast<rlim_t>(most));
    std::vector<FileDescriptor> others;
    while (others.empty() || others.back().get() < most - most / 4) others.emplace_back(::dup(file.get()));
    for (int round = 0; round < 3; ++round) {
      client->sendWithDescriptors(issueCall(), {file.get()});
      EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.LimitsExceeded");
    }
    expectErrors({"listener: a file of " + peerName() + " is refused: Too many files are open"});
    EXPECT_TRUE(connect(/*withDescriptors=*/true));
    others.clear();
    client->sendWithDescriptors(issueCall(), {file.get()});
    token = tokenOf(client->receiveMessage());
  }
  EXPECT_EQ(token.size(), 33u);
}

TEST_F(DBusFileAccessTest, MoreDescriptorsThanTheProcessMayHaveEndTheConnection) {
  start();
  const auto client = connectAndWait();
  const FileDescriptor file = open();
  const std::string line = peerName();
  {
    const DescriptorLimit limit(static_cast<rlim_t>(openDescriptors() + 2));
    client->sendWithDescriptors(issueCall(1, 0, 16), std::vector<int>(16, file.get()));
    EXPECT_TRUE(client->isEnded());
  }
  expectErrors({"listener: " + line + ": it passed too many descriptors, closing its connection"});
}

}  // namespace
}  // namespace zun
