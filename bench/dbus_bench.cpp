// What a call costs the daemon, without and with the socket.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "linux/dbus/DBusInput.h"
#include "linux/dbus/DBusMessage.h"
#include "linux/dbus/DBusServiceListener.h"
#include "linux/files/FileDescriptor.h"
#include "linux/system/SystemClock.h"

namespace {

using namespace zun;

constexpr ServiceArgument kMessage[] = {{"message", "a{sv}"}};
constexpr ServiceArgument kResponse[] = {{"response", "as"}};
constexpr ServiceMember kMembers[] = {{"sendMessageWithDictionary", kMessage, kResponse}};
constexpr ServiceInterface kInterface{"/com/vantix/zunreportingd/session",
                                      "com.vantix.zunreportingd.ClientSessionInterface", kMembers};

/// A message of 496 bytes in all, as a media player's client sends them.
std::string typicalCall(uint32_t serial, uint8_t flags = 0) {
  DBusHeader header;
  header.flags = flags;
  header.serial = serial;
  header.path = kInterface.objectPath;
  header.interface = kInterface.name;
  header.member = "sendMessageWithDictionary";
  header.signature = "a{sv}";
  Dictionary payload{
      {"duration", 5120}, {"title", "evening news"}, {"rate", 1.25}, {"stalls", 3}, {"live", true}};
  Dictionary message{
      {"messageParametersCategory", 901}, {"messageParametersType", 17}, {"messageParametersFlag", 0}};
  std::string bytes;
  for (std::string filler;; filler += 'x') {
    payload.set("note", filler);
    message.set("messageParametersPayload", payload);
    bytes.clear();
    if (appendDBusMessage(bytes, header, Array{message})) std::abort();
    if (bytes.size() >= 496) return bytes;
  }
}

void BM_DecodeCall(benchmark::State& state) {
  const std::string bytes = typicalCall(1);
  for (auto _ : state) {
    const auto frame = frameDBusMessage(bytes);
    const auto header = decodeDBusHeader(bytes);
    auto values = decodeDBusBody(*header, std::string_view(bytes).substr(frame->headerBytes));
    benchmark::DoNotOptimize(values);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_DecodeCall);

void BM_DecodeBodyOnly(benchmark::State& state) {
  const std::string bytes = typicalCall(1);
  const auto frame = frameDBusMessage(bytes);
  const auto header = decodeDBusHeader(bytes);
  for (auto _ : state) {
    auto values = decodeDBusBody(*header, std::string_view(bytes).substr(frame->headerBytes));
    benchmark::DoNotOptimize(values);
  }
}
BENCHMARK(BM_DecodeBodyOnly);

void BM_EncodeReply(benchmark::State& state) {
  DBusHeader header;
  header.type = DBusMessageType::kMethodReturn;
  header.serial = 1;
  header.replySerial = 2;
  header.signature = "as";
  std::string bytes;
  for (auto _ : state) {
    bytes.clear();
    benchmark::DoNotOptimize(appendDBusMessage(bytes, header, Array{Array{"posted"}}));
  }
}
BENCHMARK(BM_EncodeReply);

class NoLog final : public SystemLog {
 public:
  bool isEnabled(LogLevel level) const override { return level == LogLevel::kError; }
  void write(LogLevel, std::string_view line) override {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
  }
};

class Answering final : public ExportedObject, public ServiceListenerDelegate {
 public:
  bool isEntitled(const ServicePeer&) override { return true; }
  bool shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) override {
    connection->setExportedInterface(kInterface);
    connection->setExportedObject(std::shared_ptr<ExportedObject>(this, [](ExportedObject*) {}));
    connection->resume();
    return true;
  }
  void handleCall(size_t, const Array&, ServiceReply reply) override { reply.send(Array{Array{"posted"}}); }
};

double processSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double threadSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/// Calls over a real socket, `state.range(0)` at a time; "daemon_us" is the service's
/// CPU time for each: all of the process's but the client's.
void BM_CallOverSocket(benchmark::State& state) {
  NoLog log;
  Answering object;
  SystemClock clock;
  EntitlementStore entitlements("/nonexistent", clock, log);
  DBusListenerOptions options;
  const std::string path = "/tmp/zun-bench-" + std::to_string(::getpid());
  options.address = "unix:path=" + path;
  auto listener = DBusServiceListener::create(options, entitlements, log);
  if (!listener) std::abort();
  (*listener)->setDelegate(&object);
  (*listener)->resume();
  const FileDescriptor client(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  const std::string hello("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29);
  if (::send(client.get(), hello.data(), hello.size(), 0) < 0) std::abort();
  char chunk[65536];
  size_t lines = 0;
  while (lines < 2) {
    const ssize_t count = ::recv(client.get(), chunk, sizeof chunk, 0);
    lines += static_cast<size_t>(std::count(chunk, chunk + count, '\n'));
  }
  std::string batch;
  const auto calls = static_cast<size_t>(state.range(0));
  for (size_t call = 0; call < calls; ++call) batch += typicalCall(static_cast<uint32_t>(call + 1));
  size_t replyBytes = 0;
  const double before = processSeconds() - threadSeconds();
  for (auto _ : state) {
    if (::send(client.get(), batch.data(), batch.size(), 0) < 0) std::abort();
    // All replies are alike: the first tells how long each is.
    size_t received = 0;
    while (replyBytes == 0 || received < calls * replyBytes) {
      const ssize_t count = ::recv(client.get(), chunk, sizeof chunk, 0);
      if (count <= 0) std::abort();
      if (replyBytes == 0) replyBytes = frameDBusMessage({chunk, static_cast<size_t>(count)})->totalBytes;
      received += static_cast<size_t>(count);
    }
  }
  const double spent = processSeconds() - threadSeconds() - before;
  state.counters["daemon_us"] = spent * 1e6 / static_cast<double>(state.iterations() * calls);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * calls));
}
BENCHMARK(BM_CallOverSocket)->Arg(1)->Arg(16)->Arg(100)->UseRealTime();

}  // namespace
