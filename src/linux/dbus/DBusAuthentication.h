#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zun {

/// The server's side of D-Bus authentication, EXTERNAL only: whom the socket says the
/// peer is, the peer has to claim to be (or leave it to the socket).
///
///   zero byte ▶ AUTH ▶ (DATA) ▶ OK ▶ (NEGOTIATE_UNIX_FD) ▶ BEGIN ▶ kDone
///
/// Pure: bytes in, bytes out. Lines and their number are bounded. One thread.
class DBusAuthentication final {
 public:
  enum class State { kOngoing, kDone, kFailed };

  DBusAuthentication(uint32_t peerUser, std::string_view serverID)
      : peerUser_(peerUser), serverID_(serverID) {}

  /// Takes bytes off the front, appends what is to be sent to `replies`, and gives how
  /// many bytes it took. What follows BEGIN is left: it belongs to the first message.
  size_t feed(std::string_view bytes, std::string& replies);

  [[nodiscard]] State state() const { return state_; }
  /// Why it failed.
  [[nodiscard]] const char* failure() const { return failure_; }
  [[nodiscard]] bool passesDescriptors() const { return passesDescriptors_; }

 private:
  enum class Step { kCredentialsByte, kAuth, kData, kBegin };

  void handleLine(std::string_view line, std::string& replies);
  void handleAuth(std::string_view arguments, std::string& replies);
  void handleData(std::string_view response, std::string& replies);
  void handleCancel(std::string& replies);
  void handleResponse(std::string_view hexadecimal, std::string& replies);
  void reject(std::string& replies);
  void fail(const char* reason);

  uint32_t peerUser_;
  std::string serverID_;
  State state_ = State::kOngoing;
  Step step_ = Step::kCredentialsByte;
  std::string line_;
  size_t lines_ = 0;
  bool passesDescriptors_ = false;
  const char* failure_ = "";
};

}  // namespace zun
