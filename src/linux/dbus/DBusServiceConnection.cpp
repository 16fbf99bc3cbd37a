#include "linux/dbus/DBusServiceConnection.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <utility>

#include "linux/dbus/DBusAuthentication.h"

namespace zun {

namespace {

using Milliseconds = std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

// A call that takes longer is not quick: the answers before it are sent before it begins.
constexpr std::chrono::microseconds kQuickCall{1000};

bool sendWhole(int socket, std::string_view bytes) {
  return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(bytes.size());
}

/// From 1 on: 0 is nobody's.
uint64_t nextConnectionNumber() {
  static std::atomic<uint64_t> last{0};
  return ++last;
}

/// The body; the header is the connection's that makes the call.
struct DBusEncodedCall final : EncodedCall {
  DBusEncodedCall(size_t memberToCall, std::string bytes) : member(memberToCall), body(std::move(bytes)) {}

  const size_t member;
  const std::string body;
};

}  // namespace

std::shared_ptr<DBusServiceConnection> DBusServiceConnection::create(FileDescriptor socket, KnownPeer peer,
                                                                     std::string serverID,
                                                                     const DBusConnectionOptions& options,
                                                                     SystemLog& log) {
  WakeDescriptor wake;
  if (!wake.isOpen()) return nullptr;
  return std::make_shared<DBusServiceConnection>(std::move(socket), std::move(wake), std::move(peer),
                                                 std::move(serverID), options, log);
}

DBusServiceConnection::DBusServiceConnection(FileDescriptor socket, WakeDescriptor wake, KnownPeer peer,
                                             std::string serverID, const DBusConnectionOptions& options,
                                             SystemLog& log)
    : peer_(std::move(peer)),
      serverID_(std::move(serverID)),
      options_(options),
      description_(peer_.description()),
      holder_{peer_.user(), nextConnectionNumber()},
      log_(log),
      socket_(std::move(socket)),
      wake_(std::move(wake)),
      output_(std::make_shared<DBusOutput>(socket_.get(), wake_, options_.messageLimits,
                                           options_.outputLimits, options_.budgets.largeReplies, holder_,
                                           log_, description_)),
      input_(options_.messageLimits, options_.budgets.incoming, DBusServiceConnection::programHolder()),
      fileAccess_(peer_.identity().fileSystemIdentity(), description_, log_),
      objects_(DBusEnds{serverID_, static_cast<uint32_t>(peer_.identity().process), peer_.user()}) {}

DBusServiceConnection::~DBusServiceConnection() {
  output_->close();  // replies that are still to be given outlive this
}

/// By its path, which an update leaves: the share of its user bounds whoever has many.
BudgetHolder DBusServiceConnection::programHolder() const {
  const auto& program = peer_.identity().program;
  return {holder_.user, program ? std::max<uint64_t>(std::hash<std::string>()(program->path), 1) : 1};
}

bool DBusServiceConnection::isWanted() const {
  pollfd polled{socket_.get(), 0, 0};
  return !isInvalidated_ && ::poll(&polled, 1, 0) >= 0 && (polled.revents & (POLLHUP | POLLERR)) == 0;
}

void DBusServiceConnection::setExportedInterface(const ServiceInterface& interface) {
  objects_.exportInterface(interface, DBusObjects::Answerer::kExportedObject);
  objects_.exportInterface(fileAccess_.interfaceAt(interface.objectPath), DBusObjects::Answerer::kFileAccess);
  isQuick_.assign(interface.members.size(), false);
}

void DBusServiceConnection::setRemoteObjectInterface(const ServiceInterface& interface) {
  remote_.emplace(interface);
}

void DBusServiceConnection::setExportedObject(std::shared_ptr<ExportedObject> object) {
  exportedObject_ = std::move(object);
}

void DBusServiceConnection::setInterruptionHandler(UniqueFunction<void()> handler) {
  interruptionHandler_ = std::move(handler);
}

void DBusServiceConnection::setInvalidationHandler(UniqueFunction<void()> handler) {
  invalidationHandler_ = std::move(handler);
}

void DBusServiceConnection::resume() {
  isResumed_ = true;
  output_->wake();
}

void DBusServiceConnection::invalidate() {
  isInvalidated_ = true;
  output_->wake();
}

Result<std::shared_ptr<const EncodedCall>, std::string> DBusServiceConnection::encodeCall(
    size_t member, const Array& arguments) const {
  using Encoded = Result<std::shared_ptr<const EncodedCall>, std::string>;
  if (!remote_ || member >= remote_->interface().members.size()) {
    return Encoded::failure("the client has no such operation");
  }
  auto body = encodeDBusBody(remote_->member(member).inSignature, arguments, options_.messageLimits);
  if (!body) return Encoded::failure(body.error().reason);
  return std::shared_ptr<const EncodedCall>(std::make_shared<DBusEncodedCall>(member, std::move(*body)));
}

std::optional<std::string> DBusServiceConnection::callRemote(const EncodedCall& call) {
  const auto& encoded = static_cast<const DBusEncodedCall&>(call);
  if (!remote_ || encoded.member >= remote_->interface().members.size()) {
    return "the client has no such operation";
  }
  DBusHeader header;
  header.flags = kDBusFlagNoReplyExpected;
  header.path = remote_->interface().objectPath;
  header.interface = remote_->interface().name;
  header.member = remote_->member(encoded.member).name;
  header.signature = remote_->member(encoded.member).inSignature;
  return output_->sendCall(header, encoded.body);
}

DBusServiceConnection::Outcome DBusServiceConnection::run(ServiceListenerDelegate* delegate,
                                                          const std::shared_ptr<ServiceConnection>& self) {
  output_->setConnectionThread(std::this_thread::get_id());
  try {
    if (!isServed_ && authenticate() && delegate != nullptr && delegate->shouldAcceptNewConnection(self)) {
      isServed_ = true;
      waitForResume();
    }
    if (isServed_ && serve() == Outcome::kRests) {
      output_->setConnectionThread({});
      return Outcome::kRests;
    }
  } catch (const std::exception& exception) {
    log_.error("listener: {}: its connection failed: {}", description_, exception.what());
  }
  end();
  return Outcome::kEnded;
}

bool DBusServiceConnection::authenticate() {
  DBusAuthentication authentication(peer_.user(), serverID_);
  const auto deadline = SteadyClock::now() + options_.authenticationTimeout;
  while (authentication.state() == DBusAuthentication::State::kOngoing) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - SteadyClock::now());
    if (left <= Milliseconds::zero()) {
      if (authenticationFailed_) authenticationFailed_("it did not authenticate in time");
      return false;
    }
    waitForEvents(POLLIN, static_cast<int>(left.count()));
    if (isInvalidated_) return false;
    if (!receive()) return false;
    std::string replies;
    input_.consume(authentication.feed(input_.buffered(), replies));
    // The first message may come together with BEGIN.
    if (authentication.passesDescriptors()) input_.allowDescriptors();
    if (!replies.empty() && !sendWhole(socket_.get(), replies)) return false;
    if (endOfInput_ && authentication.state() == DBusAuthentication::State::kOngoing) {
      log_.debug("listener: {} left before it was authenticated", description_);
      return false;
    }
  }
  if (authentication.state() == DBusAuthentication::State::kFailed) {
    if (authenticationFailed_) {
      authenticationFailed_(fmt::format("it did not authenticate: {}", authentication.failure()));
    }
    return false;
  }
  return true;
}

void DBusServiceConnection::waitForResume() {
  while (!isResumed_ && !isInvalidated_ && !peerIsGone_) waitForEvents(0, kForEver);
}

DBusServiceConnection::Outcome DBusServiceConnection::serve() {
  while (!isInvalidated_) {
    if (dispatchBuffered() == Step::kStop) break;
    output_->flush();
    if (isInvalidated_) break;
    const bool hadLastCall = endOfInput_ && isStarved_;
    if (hadLastCall && isFinished()) break;
    if (hadLastCall || !output_->hasRoom()) {
      if (waitForReader() == Step::kStop) break;
      continue;
    }
    if (!isStarved_) continue;
    if (!input_.wasFilled() && !waitForCalls()) return Outcome::kRests;
    if (!receive()) break;
  }
  return Outcome::kEnded;
}

/// False where the connection is to rest: nobody waits for anything but the client's next
/// call, and that does not come soon. Whoever queues something meanwhile writes it himself,
/// and wakes the connection where the socket does not take it.
bool DBusServiceConnection::waitForCalls() {
  const bool mayRest = output_->queuedBytes() == 0 && options_.restAfter >= Milliseconds::zero();
  if (waitForEvents(POLLIN, mayRest ? static_cast<int>(options_.restAfter.count()) : kForEver)) return true;
  input_.giveBackMemory();
  return false;
}

/// Waits until the peer reads what is queued or a reply is given; stops after too long
/// a time in which the peer could have read something.
DBusServiceConnection::Step DBusServiceConnection::waitForReader() {
  const bool isUnread = output_->queuedBytes() > 0;
  const int longest = isUnread ? static_cast<int>(options_.unreadTimeout.count()) : kForEver;
  if (waitForEvents(0, longest) || !isUnread) return Step::kGoOn;
  log_.error("listener: {} does not read its replies, closing its connection", description_);
  return Step::kStop;
}

/// Waits until the socket has one of `events`, takes more of what is queued, or the
/// connection is woken. False where nothing of that came in time.
bool DBusServiceConnection::waitForEvents(int events, int milliseconds) {
  const int writing = output_->queuedBytes() > 0 ? POLLOUT : 0;
  std::array<pollfd, 2> polled{
      {{socket_.get(), static_cast<short>(events | writing), 0}, {wake_.get(), POLLIN, 0}}};
  const int ready = ::poll(polled.data(), polled.size(), milliseconds);
  if (ready <= 0) return ready < 0;
  if ((polled[1].revents & POLLIN) != 0) wake_.take();
  if ((polled[0].revents & (POLLHUP | POLLERR)) != 0) notePeerIsGone();
  return true;
}

void DBusServiceConnection::notePeerIsGone() {
  if (std::exchange(peerIsGone_, true)) return;
  output_->drop();
}

/// False when the peer sent what it must not.
bool DBusServiceConnection::receive() {
  switch (input_.receive(socket_.get())) {
    case DBusInput::Received::kData:
    case DBusInput::Received::kNothingYet: return true;
    case DBusInput::Received::kEndOfInput: endOfInput_ = true; return true;
    case DBusInput::Received::kRefused: break;
  }
  log_.error("listener: {}: {}, closing its connection", description_, input_.refusal());
  return false;
}

/// After the peer's last call: true when nothing is owed to it any more.
bool DBusServiceConnection::isFinished() {
  waitForEvents(0, 0);
  if (peerIsGone_ || output_->isClosed()) return true;
  // Pending first: a reply is queued before it stops being pending.
  const bool isOwedReplies = output_->pendingReplies() > 0;
  if (!isOwedReplies && output_->queuedBytes() == 0) return true;
  if (isOwedReplies && !std::exchange(isInterrupted_, true) && interruptionHandler_) interruptionHandler_();
  return false;
}

DBusServiceConnection::Step DBusServiceConnection::dispatchBuffered() {
  isStarved_ = false;
  while (!isInvalidated_) {
    if (!output_->hasRoom()) return Step::kGoOn;
    auto message = input_.takeMessage();
    if (!message) {
      isStarved_ = true;
      return Step::kGoOn;
    }
    if (dispatch(*message) == Step::kStop) return Step::kStop;
  }
  return Step::kStop;
}

DBusServiceConnection::Step DBusServiceConnection::dispatch(DBusIncomingMessage& message) {
  const DBusHeader& header = message.header;
  switch (message.state) {
    case DBusIncomingMessage::State::kMalformed:
      log_.error("listener: {} sent a malformed message, closing its connection: {}", description_,
                 message.reason);
      return Step::kStop;
    case DBusIncomingMessage::State::kTooLarge:
      log_.error("listener: {} sent a message of {} bytes, {} are allowed", description_, message.totalBytes,
                 options_.messageLimits.maximumMessageBytes);
      sendError(header, kDBusErrorLimitsExceeded, "The message is too large");
      return Step::kGoOn;
    case DBusIncomingMessage::State::kComplete: break;
  }
  // The client's object is called one way: whatever else comes is not for us.
  if (header.type != DBusMessageType::kMethodCall) return Step::kGoOn;
  return dispatchCall(message);
}

DBusServiceConnection::Step DBusServiceConnection::dispatchCall(DBusIncomingMessage& message) {
  const DBusHeader& header = message.header;
  const DBusObjects::Target target = objects_.resolve(header);
  if (target.table == nullptr) {
    sendError(header, target.error, target.errorText);
    return Step::kGoOn;
  }
  MemoryShare memory(options_.budgets.decoded, holder_, MemoryShare::kUsualStep);  // until the call is done
  const auto arguments = decodeDBusBody(header, message.body, options_.messageLimits, &memory);
  if (!arguments && arguments.error().kind == DBusFailure::Kind::kMalformed) {
    log_.error("listener: {} sent a malformed message, closing its connection: {}", description_,
               arguments.error().reason);
    return Step::kStop;
  }
  if (!arguments) {
    log_.error("listener: {} sent a message that is refused: {}", description_, arguments.error().reason);
    sendError(header, kDBusErrorLimitsExceeded, arguments.error().reason);
    return Step::kGoOn;
  }
  ServiceReply reply = output_->makeReply(header, target.table->member(target.member).outSignature);
  switch (target.answerer) {
    case DBusObjects::Answerer::kExportedObject:
      callExported(target.member, *arguments, std::move(reply));
      break;
    case DBusObjects::Answerer::kFileAccess:
      fileAccess_.answer(*arguments, message.descriptors, std::move(reply));
      break;
    case DBusObjects::Answerer::kThis: objects_.answer(target, header, *arguments, std::move(reply)); break;
  }
  return Step::kGoOn;
}

void DBusServiceConnection::callExported(size_t member, const Array& arguments, ServiceReply reply) {
  if (exportedObject_ == nullptr) {
    reply.sendError(kDBusErrorFailed, "The object is gone");
    return;
  }
  // Answers are held back until all calls that came together are done; but not while
  // one of those waits for something.
  if (!isQuick_[member]) output_->flush();
  const auto begin = SteadyClock::now();
  try {
    exportedObject_->handleCall(member, arguments, std::move(reply));
  } catch (const std::exception& exception) {
    log_.error("listener: a call of {} failed: {}", description_, exception.what());
  }
  isQuick_[member] = SteadyClock::now() - begin < kQuickCall;
}

void DBusServiceConnection::sendError(const DBusHeader& call, std::string_view name, std::string_view text) {
  log_.debug("listener: {}: {}: {}", description_, name, text);
  if (call.expectsReply()) output_->sendError(call.serial, name, text);
}

void DBusServiceConnection::end() {
  isInvalidated_ = true;
  output_->flush();
  output_->close();
  socket_.reset();
  input_.drop();
  fileAccess_.extensions()->invalidate();
  if (invalidationHandler_) invalidationHandler_();
  // They may hold this connection, as it holds them.
  invalidationHandler_ = nullptr;
  interruptionHandler_ = nullptr;
  exportedObject_ = nullptr;
  wake_.reset();
}

}  // namespace zun
