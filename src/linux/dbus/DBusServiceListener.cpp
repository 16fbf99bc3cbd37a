#include "linux/dbus/DBusServiceListener.h"
#include "linux/files/PosixError.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <array>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

namespace zun {

namespace {

// Before accepting, or making a thread, is tried again when the system is short of something.
constexpr int kPauseMilliseconds = 100;
// Before the accepting thread looks at anything else.
constexpr int kAcceptedAtOnce = 256;
// Before more are accepted, which is quicker than to serve one.
constexpr size_t kServedAtOnce = 2;

/// It has sent nothing and sends nothing any more: nobody waits for an answer.
bool hasLeft(int client) {
  char byte = 0;
  return ::recv(client, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

std::string reasonAgainstPeer(const PeerIdentity& peer) {
  return peer.program && peer.program->isDeleted
             ? "it is not entitled; its program has been replaced or removed"
             : "it is not entitled";
}

std::string makeServerID() {
  sd_id128_t id{};
  if (::sd_id128_randomize(&id) < 0) return std::string(32, '0');
  std::array<char, SD_ID128_STRING_MAX> text{};
  return ::sd_id128_to_string(id, text.data());
}

FileDescriptor openSpare() {
  return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

class DBusServiceListener::Served final : public DescriptorTask {
 public:
  Served(DBusServiceListener& listener, std::shared_ptr<DBusServiceConnection> served)
      : user(served->peer().identity().user),
        program(programKey(served->peer().identity())),
        connection(std::move(served)),
        listener_(listener) {}

  Outcome work() override {
    if (run() == DBusServiceConnection::Outcome::kRests) return Outcome::kRests;
    listener_.connectionEnded(*this);
    return Outcome::kEnded;
  }
  std::array<int, 2> descriptors() const override { return connection->descriptors(); }

  // Whose place it holds.
  const uid_t user;
  const ProgramKey program;
  std::shared_ptr<DBusServiceConnection> connection;  // until it has ended; under the listener's lock then
  std::list<std::shared_ptr<Served>>::iterator place;

 private:
  DBusServiceConnection::Outcome run() {
    try {
      return connection->run(&listener_, connection);
    } catch (const std::exception& exception) {
      listener_.log_.error("listener: {}: its connection failed: {}", connection->description(),
                           exception.what());
      return DBusServiceConnection::Outcome::kEnded;
    }
  }

  DBusServiceListener& listener_;
};

Result<std::unique_ptr<DBusServiceListener>, Error> DBusServiceListener::create(
    DBusListenerOptions options, EntitlementStore& entitlements, SystemLog& log) {
  using Created = Result<std::unique_ptr<DBusServiceListener>, Error>;
  auto socket = ListeningSocket::open(options.address);
  if (!socket) return Created::failure(socket.error());
  auto wake = std::make_unique<const WakeDescriptor>();
  if (!wake->isOpen()) return Created::failure(posixError(errno));
  options.threads.onShortage = [&signalled = *wake] { signalled.signal(); };
  auto pool = ElasticPool::create(options.threads, log);
  if (!pool) return Created::failure(pool.error());
  return std::unique_ptr<DBusServiceListener>(new DBusServiceListener(
      std::move(options), std::move(*socket), std::move(wake), std::move(*pool), entitlements, log));
}

DBusServiceListener::DBusServiceListener(DBusListenerOptions options, ListeningSocket socket,
                                         std::unique_ptr<const WakeDescriptor> wake,
                                         std::unique_ptr<ElasticPool> pool, EntitlementStore& entitlements,
                                         SystemLog& log)
    : options_(std::move(options)),
      serverID_(makeServerID()),
      entitlements_(entitlements),
      log_(log),
      socket_(std::move(socket)),
      wake_(std::move(wake)),
      spare_(openSpare()),
      refusals_(log),
      pool_(std::move(pool)) {}

DBusServiceListener::~DBusServiceListener() {
  stop();
  invalidateConnections();
}

void DBusServiceListener::resume() {
  if (isStopping_) return;
  {
    const MutexLock lock(doorMutex_);
    isPaused_ = false;
  }
  doorMoved_.notify_all();
  if (!thread_.joinable()) thread_ = options_.startThread([this] { acceptLoop(); });
}

void DBusServiceListener::pause() {
  if (!thread_.joinable()) return;
  const MutexLock lock(doorMutex_);
  isPaused_ = true;
  wake_->signal();
  while (!waitsAtTheDoor_) doorMoved_.wait(doorMutex_);
}

void DBusServiceListener::stop() {
  {
    const MutexLock lock(doorMutex_);
    isStopping_ = true;
  }
  doorMoved_.notify_all();
  wake_->signal();
  if (thread_.joinable()) thread_.join();
  socket_.close();
}

void DBusServiceListener::acceptLoop() {
  pthread_setname_np(pthread_self(), "zun-accepting");
  while (!isStopping_) {
    if (isPaused_) waitAtTheDoor();
    std::array<pollfd, 2> polled{{{socket_.get(), POLLIN, 0}, {wake_->get(), POLLIN, 0}}};
    const int untilLook = millisecondsToLook();
    heartbeat_->rests();
    const int ready = ::poll(polled.data(), polled.size(), waiting_.isEmpty() ? untilLook : 0);
    heartbeat_->works();
    if (ready < 0) continue;
    if ((polled[1].revents & POLLIN) != 0) wake_->take();
    if (polled[0].revents != 0) acceptWaiting();
    serveWaiting(kServedAtOnce);
  }
  serveWaiting(WaitingClients::kMaximum);
  heartbeat_->rests();
}

// The thread stays: where the machine has no room for another, nobody would be served again.
void DBusServiceListener::waitAtTheDoor() {
  serveWaiting(WaitingClients::kMaximum);  // and whoever comes now waits
  const MutexLock lock(doorMutex_);
  waitsAtTheDoor_ = true;
  doorMoved_.notify_all();
  heartbeat_->rests();
  while (isPaused_ && !isStopping_) doorMoved_.wait(doorMutex_);
  waitsAtTheDoor_ = false;
}

/// Empties the queue in which everybody waits, before it is full.
void DBusServiceListener::acceptWaiting() {
  for (int count = 0; count < kAcceptedAtOnce && !isPaused_ && !isStopping_; ++count) {
    FileDescriptor client(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.isOpen()) {
      handleAcceptFailure(errno);
      return;
    }
    isShort_ = false;
    orRefuse([&] { queue(std::move(client)); });
  }
}

void DBusServiceListener::serveWaiting(size_t count) {
  for (; count > 0 && !waiting_.isEmpty(); --count) {
    orRefuse([this] { serve(waiting_.takeNext()); });
  }
}

template <typename Work>
void DBusServiceListener::orRefuse(Work&& work) {
  try {
    work();
  } catch (const std::exception& exception) {
    refuse(RefusalLog::Cause::kShortage, nullptr, exception.what());
  }
}

void DBusServiceListener::queue(FileDescriptor client) {
  const auto peer = readPeerCredentials(client.get());
  if (!peer) {
    refuse(RefusalLog::Cause::kShortage, nullptr, "it has no peer credentials");
  } else if (hasLeft(client.get())) {
    log_.debug("listener: pid {}, user {} left before it was authenticated", peer->process, peer->user);
  } else if (!refuseAgain(*peer) && !refuseStranger(*peer, client.get()) &&
             !waiting_.add(peer->user, peer->process, std::move(client))) {
    refuse(RefusalLog::Cause::kNoPlace, &*peer, "too many of its user or its process wait already");
  }
}

/// Until refusals that were only counted are to be told, or a thread that could not be made
/// is to be tried again; for ever where there is nothing of that.
int DBusServiceListener::millisecondsToLook() {
  const RefusalLog::Time now = options_.now();
  const auto next = refusals_.tellCounted(now);
  if (!pool_->relieve()) return kPauseMilliseconds;
  if (!next) return -1;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*next - now).count());
}

void DBusServiceListener::refuse(RefusalLog::Cause cause, const PeerIdentity* peer, std::string reason) {
  refusals_.refused(cause, peer == nullptr ? "" : peer->description(), std::move(reason), options_.now());
}

void DBusServiceListener::handleAcceptFailure(int error) {
  if (error == EAGAIN || error == EINTR || error == ECONNABORTED) return;
  // Left waiting, the client would keep the socket readable and this thread spinning.
  if ((error == EMFILE || error == ENFILE) && spare_.isOpen()) {
    spare_.reset();
    const bool isRefused = FileDescriptor(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC)).isOpen();
    spare_ = openSpare();
    if (isRefused) {
      refuse(RefusalLog::Cause::kShortage, nullptr, std::generic_category().message(error));
      return;
    }
  }
  if (!std::exchange(isShort_, true)) {
    log_.error("listener: connections have to wait: {}", std::generic_category().message(error));
  }
  pollfd woken{wake_->get(), POLLIN, 0};
  ::poll(&woken, 1, kPauseMilliseconds);
  if (!spare_.isOpen()) spare_ = openSpare();
}

bool DBusServiceListener::refuseAgain(const PeerIdentity& peer) {
  const KnownPeer* const known = recentRefusals_.find(peer, options_.now());
  if (known == nullptr || isEntitled(*known)) return false;
  const bool isIt = known->identity().process == peer.process;
  const PeerIdentity& refused = isIt ? known->identity() : peer;
  refuseUnentitled(refused, reasonAgainstPeer(refused));
  return true;
}

bool DBusServiceListener::refuseStranger(const PeerIdentity& peer, int socket) {
  if (entitlements_.hasRuleForAccount(peer)) return false;
  const KnownPeer stranger(peer, {});
  if (isEntitled(stranger)) return false;
  // What it runs is for the log alone, and asking takes longer than all else.
  const bool isTold = refusals_.tellsAtOnce(RefusalLog::Cause::kNotEntitled, options_.now());
  PeerIdentity refused = isTold ? readPeerIdentity(socket).value_or(peer) : peer;
  refused.shortage = peer.shortage;
  if (refuseUnentitled(refused, reasonAgainstPeer(refused)))
    recentRefusals_.addAccount(stranger, options_.now());
  return true;
}

bool DBusServiceListener::refuseUnentitled(const PeerIdentity& peer, std::string reason) {
  if (peer.shortage != 0) {
    refuse(RefusalLog::Cause::kShortage, &peer, std::generic_category().message(peer.shortage));
    return false;
  }
  refuse(RefusalLog::Cause::kNotEntitled, &peer, std::move(reason));
  return true;
}

void DBusServiceListener::serve(FileDescriptor socket) {
  auto identity = readPeerIdentity(socket.get());
  if (!identity) {
    refuse(RefusalLog::Cause::kShortage, nullptr, "it has no peer credentials");
    return;
  }
  KnownPeer peer(*identity, entitlements_.rightsOfPeer(*identity));
  if (!isEntitled(peer)) {
    if (refuseUnentitled(*identity, reasonAgainstPeer(*identity))) recentRefusals_.add(peer, options_.now());
    return;
  }
  if (std::string reason = reasonAgainstPlace(*identity); !reason.empty()) {
    refuse(RefusalLog::Cause::kNoPlace, &*identity, std::move(reason));
    return;
  }
  auto connection =
      DBusServiceConnection::create(std::move(socket), std::move(peer), serverID_, options_.connection, log_);
  if (connection == nullptr) {
    refuse(RefusalLog::Cause::kShortage, nullptr, "too many open files");
    return;
  }
  connection->setAuthenticationFailureHandler([this, identity = *identity](std::string reason) {
    refuse(RefusalLog::Cause::kNotAuthenticated, &identity, std::move(reason));
  });
  begin(std::move(connection));
}

bool DBusServiceListener::isEntitled(const ServicePeer& peer) {
  return delegate_ != nullptr && delegate_->isEntitled(peer);
}

/// An authenticated peer's. Programs that are not what they were count as not known: who
/// connects and then becomes an entitled program does not become entitled.
bool DBusServiceListener::shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) {
  auto& ours = static_cast<DBusServiceConnection&>(*connection);
  auto identity = ours.readPeer();
  if (!identity) return false;
  const auto& before = ours.peer().identity().program;
  if (!before || !identity->program || !identity->program->isStill(*before)) identity->program.reset();
  KnownPeer peer(*identity, entitlements_.rightsOfPeer(*identity));
  if (!isEntitled(peer)) {
    PeerIdentity refused = ours.peer().identity();
    refused.shortage = identity->shortage;
    refuseUnentitled(refused, "it is no longer entitled");
    return false;
  }
  ours.confirmPeer(std::move(peer));
  return delegate_->shouldAcceptNewConnection(connection);
}

DBusServiceListener::ProgramKey DBusServiceListener::programKey(const PeerIdentity& peer) {
  return peer.program ? ProgramKey(peer.program->device, peer.program->inode) : ProgramKey();
}

std::string DBusServiceListener::reasonAgainstPlace(const PeerIdentity& peer) {
  const MutexLock lock(mutex_);
  const size_t all = running_.size();
  const auto found = users_.find(peer.user);
  const size_t ofUser = found == users_.end() ? 0 : found->second.connections;
  if (!hasShare(ofUser, all - ofUser, options_.maximumConnections)) {
    return ofUser == 0 ? fmt::format("there are {} connections already", all)
                       : fmt::format("there are {} connections already, {} of them the user's", all, ofUser);
  }
  if (ofUser == 0) return {};
  const auto program = found->second.programs.find(programKey(peer));
  const size_t ofProgram = program == found->second.programs.end() ? 0 : program->second;
  if (hasShare(ofProgram, ofUser - ofProgram, options_.maximumConnectionsPerUser)) return {};
  return ofProgram == 0 ? fmt::format("the user has {} connections already", ofUser)
                        : fmt::format("the user has {} connections already, {} of them the program's", ofUser,
                                      ofProgram);
}

void DBusServiceListener::begin(std::shared_ptr<DBusServiceConnection> connection) {
  const auto served = std::make_shared<Served>(*this, std::move(connection));
  {
    const MutexLock lock(mutex_);
    User& user = users_[served->user];
    size_t& ofProgram = user.programs[served->program];
    served->place = running_.insert(running_.end(), served);
    ++user.connections;
    ++ofProgram;
  }
  if (const int error = pool_->add(served); error != 0) {
    {
      const MutexLock lock(mutex_);
      leave(*served);
    }
    refuse(RefusalLog::Cause::kShortage, nullptr, std::generic_category().message(error));
    return;
  }
  countChanged();
}

void DBusServiceListener::leave(const Served& served) {
  const auto user = users_.find(served.user);
  const auto program = user->second.programs.find(served.program);
  if (--program->second == 0) user->second.programs.erase(program);
  if (--user->second.connections == 0) users_.erase(user);
  running_.erase(served.place);
}

void DBusServiceListener::connectionEnded(Served& served) {
  std::shared_ptr<DBusServiceConnection> connection;
  {
    const MutexLock lock(mutex_);
    connection = std::move(served.connection);
    ++ending_;
  }
  connection = nullptr;  // before its place is another's
  {
    const MutexLock lock(mutex_);
    leave(served);
  }
  countChanged();
  wake_->signal();  // it may wait for a descriptor
  const MutexLock lock(mutex_);
  --ending_;
  if (running_.empty() && ending_ == 0) allEnded_.notify_all();
}

void DBusServiceListener::invalidateConnections() {
  {
    const MutexLock lock(mutex_);
    for (const auto& served : running_) {
      if (served->connection != nullptr) served->connection->invalidate();
    }
    while (!running_.empty() || ending_ > 0) allEnded_.wait(mutex_);
  }
}

size_t DBusServiceListener::connectionCount() {
  const MutexLock lock(mutex_);
  return running_.size();
}

bool DBusServiceListener::hasWaitingClient() {
  pollfd waiting{socket_.get(), POLLIN, 0};
  return ::poll(&waiting, 1, 0) > 0;
}

void DBusServiceListener::setConnectionCountHandler(UniqueFunction<void(size_t)> handler) {
  const MutexLock lock(countMutex_);
  countHandler_ = std::move(handler);
}

void DBusServiceListener::countChanged() {
  const MutexLock lock(countMutex_);
  if (countHandler_) countHandler_(connectionCount());
}

}  // namespace zun
