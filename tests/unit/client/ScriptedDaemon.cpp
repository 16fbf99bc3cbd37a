#include "ScriptedDaemon.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace zunreporting {

ScriptedDaemon::ScriptedDaemon(Script script) : path_(folder_.path("socket")), script_(std::move(script)) {
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
  EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(listener_, 1), 0);
  thread_ = std::thread([this] { serve(); });
}

ScriptedDaemon::~ScriptedDaemon() {
  hasEnded_ = true;
  shutdown(listener_, SHUT_RDWR);
  thread_.join();
  close(listener_);
}

void ScriptedDaemon::serve() {
  const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (peer < 0) return;
  sd_bus* bus = nullptr;
  sd_id128_t id{};
  sd_bus_new(&bus);
  sd_bus_set_fd(bus, peer, peer);
  sd_bus_set_server(bus, 1, id);
  sd_bus_negotiate_fds(bus, 1);
  sd_bus_add_filter(bus, nullptr, answer, this);
  EXPECT_GE(sd_bus_start(bus), 0);
  // Ends when the client goes, which is before this object does.
  int result = 0;
  while (!hasEnded_ && result >= 0) {
    result = sd_bus_process(bus, nullptr);
    if (result == 0) sd_bus_wait(bus, 100'000);
  }
  sd_bus_flush_close_unref(bus);
}

int ScriptedDaemon::answer(sd_bus_message* message, void* daemon, sd_bus_error*) {
  if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) return 0;
  const int result = static_cast<ScriptedDaemon*>(daemon)->script_(message);
  if (result < 0) sd_bus_close(sd_bus_message_get_bus(message));
  return 1;
}

sd_bus_message* newMessageToClient(sd_bus* bus) {
  sd_bus_message* message = nullptr;
  EXPECT_GE(sd_bus_message_new_method_call(bus, &message, nullptr, "/com/vantix/zunreportingd/client",
                                           "com.vantix.zunreportingd.ClientSessionReplyInterface",
                                           "sendMessageToClient"),
            0);
  sd_bus_message_set_expect_reply(message, 0);
  return message;
}

int sendToClient(sd_bus* bus, sd_bus_message* message) {
  const int result = sd_bus_send(bus, message, nullptr);
  sd_bus_message_unref(message);
  return result;
}

}  // namespace zunreporting
