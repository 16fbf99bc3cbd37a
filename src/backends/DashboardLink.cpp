#include "backends/DashboardLink.h"

#include <array>
#include <utility>

namespace zun {

namespace {

using namespace std::chrono_literals;

constexpr auto kTimerLeeway = 100ms;
constexpr auto kLastResortDelay = 9500ms;

/// Ticks that a packet waits for its acknowledgement, by retransmissions so far. One
/// that was retransmitted as often as there are entries is given up.
constexpr std::array kRetransmissionThresholds{2, 3, 5, 9};

/// Acknowledgements that one readiness of the socket is good for, so that a server that
/// floods it leaves sends and ticks their turns.
constexpr int kReadsAtOnce = 64;

template <typename Source>
void cancel(std::weak_ptr<Source>& source) {
  if (const auto running = std::exchange(source, {}).lock()) running->cancel();
}

}  // namespace

std::shared_ptr<DashboardLink> DashboardLink::open(const PlatformServices& platform,
                                                   std::unique_ptr<DatagramSocket> socket,
                                                   const DashboardServer& server, BudgetHolder holder) {
  std::shared_ptr<DashboardLink> link(new DashboardLink(platform, std::move(socket), server, holder));
  // In its turn on the queue, because handlers may fire from the first moment on.
  const bool hasStarted =
      link->networkProcQueue_->sync([&link, &server] { return link->start(server.address); });
  return hasStarted ? link : nullptr;
}

DashboardLink::DashboardLink(const PlatformServices& platform, std::unique_ptr<DatagramSocket> socket,
                             const DashboardServer& server, BudgetHolder holder)
    : platform_(platform),
      holder_(holder),
      reliableUDP_(server.isReliable),
      timerPeriod_(server.timerPeriod),
      startTime_(platform.clock.monotonic()),
      networkProcQueue_(SerialQueue::create("com.vantix.ZunReporting.networkProc", platform.executor)),
      socket_(std::move(socket)) {}

DashboardLink::~DashboardLink() {
  stopOutliving();
}

bool DashboardLink::start(const IPv4SocketAddress& server) {
  if (reliableUDP_) useReliableUDP();
  if (socket_->connect(server)) {
    platform_.log.error("DashboardBackend(initWithName): socket connect() failed.");
    cleanupSources();
    return false;
  }
  if (!startTimer()) {
    platform_.log.error("DashboardBackend(initWithName): can't create timer source.");
    cleanupSources();
    return false;
  }
  return true;
}

void DashboardLink::useReliableUDP() {
  if (const auto error = socket_->bindToAnyAddress()) {
    platform_.log.error("DashboardBackend(useReliableUDP): can't bind socket, {}", error->code);
  }
  const auto source = socket_->startReadSource(
      networkProcQueue_, [self = shared_from_this()] { self->readSocket(); },
      [self = shared_from_this()] { self->socket_->close(); });
  if (source == nullptr) {
    platform_.log.error("DashboardBackend(useReliableUDP): can't create read source");
  }
  readSource_ = source;
}

bool DashboardLink::startTimer() {
  const auto timer = platform_.timers.startTimer(
      {.firstFiring = untilNextTick(), .interval = timerPeriod_, .leeway = kTimerLeeway}, networkProcQueue_,
      [self = shared_from_this()] { self->myPeriodicTask(); }, [] {});
  timer_ = timer;
  return timer != nullptr;
}

std::chrono::nanoseconds DashboardLink::untilNextTick() const {
  return timerPeriod_ - (platform_.clock.monotonic() - startTime_) % timerPeriod_;
}

// Sending

void DashboardLink::send(DashboardDatagram datagram, uint16_t eventNumber) {
  if (queued_.fetch_add(1) >= kMaximumQueued) networkProcQueue_->sync([] {});
  networkProcQueue_->async([self = shared_from_this(), datagram = std::move(datagram), eventNumber] {
    --self->queued_;
    self->tryToSendMsg(datagram.bytes(), eventNumber);
  });
}

bool DashboardLink::sendWhole(std::span<const std::byte> datagram) {
  const auto sent = socket_->send(datagram);
  return sent && *sent == datagram.size();
}

void DashboardLink::tryToSendMsg(std::span<const std::byte> datagram, uint16_t eventNumber) {
  if (hasEnded_) return;
  const bool isSent = sendWhole(datagram);
  if (isSent && !reliableUDP_) return;
  UDPPacketToSend packet(datagram, eventNumber);
  if (isSent) packet.state = UDPPacketToSend::State::kAwaitingAcknowledgement;
  messageQueue_.push_back(std::move(packet));
  if (messageQueue_.size() > kMaximumPackets) messageQueue_.erase(messageQueue_.begin());
  if (timer_.expired()) (void)startTimer();  // should there be none, the next packet asks again
}

// Acknowledgements

void DashboardLink::readSocket() {
  for (int reads = 0; reads < kReadsAtOnce && processSocketRead(); ++reads) {
  }
}

/// False if nothing was there.
bool DashboardLink::processSocketRead() {
  std::array<std::byte, DashboardDatagram::kBufferBytes> buffer;
  const auto received = socket_->receive(buffer);
  if (!received || *received < 1) return false;
  const auto eventNumber = acknowledgedEventNumber({buffer.data(), *received});
  if (!eventNumber) return true;
  std::erase_if(messageQueue_, [number = *eventNumber](const UDPPacketToSend& packet) {
    return packet.eventNumber == number;
  });
  if (messageQueue_.empty()) stopBeingAwaited();
  return true;
}

// Retransmission

void DashboardLink::myPeriodicTask() {
  for (auto packet = messageQueue_.begin(); packet != messageQueue_.end();) {
    packet = isDoneWith(*packet) ? messageQueue_.erase(packet) : packet + 1;
  }
  cleanUpIfRequested();
  // The next packet starts it again. An acknowledgement does not stop it: in a stream of
  // events that would be a start and a stop for each.
  if (messageQueue_.empty()) cancel(timer_);
}

bool DashboardLink::isDoneWith(UDPPacketToSend& packet) {
  if (packet.state == UDPPacketToSend::State::kNotSent) {
    if (!sendWhole(packet.data)) return false;
    packet.state = UDPPacketToSend::State::kAwaitingAcknowledgement;
    return !reliableUDP_;
  }
  if (packet.numberOfRetransmits >= static_cast<int>(kRetransmissionThresholds.size())) return true;
  retransmitIfDue(packet);
  return false;
}

void DashboardLink::retransmitIfDue(UDPPacketToSend& packet) {
  const int checks = packet.numberOfChecks + 1;
  if (checks < kRetransmissionThresholds[static_cast<size_t>(packet.numberOfRetransmits)]) {
    packet.numberOfChecks = checks;
    return;
  }
  if (!sendWhole(packet.data)) return;
  packet.numberOfChecks = 0;
  ++packet.numberOfRetransmits;
}

// The end

void DashboardLink::cleanup() {
  networkProcQueue_->async([self = shared_from_this()] {
    const bool isLookedAfter = !self->messageQueue_.empty() && !self->timer_.expired();
    if (isLookedAfter && self->mayOutliveBackend()) {
      self->cleanupState_ = CleanupState::kRequested;
      if (!std::exchange(self->isAwaited_, true)) ++awaited_;
    } else {
      self->cleanupSources();
    }
  });
}

void DashboardLink::end() {
  networkProcQueue_->async([self = shared_from_this()] { self->cleanupSources(); });
}

bool DashboardLink::mayOutliveBackend() {
  if (isOutliving_) return true;
  const size_t left = outliving_.left();
  // Each one that ends makes room for one: that is no end of the overflow.
  if (left == kMaximumOutliving) hasToldOfOverflow_ = false;
  isOutliving_ = outliving_.take(1, holder_);
  if (!isOutliving_ && !hasToldOfOverflow_.exchange(true)) {
    platform_.log.error(
        "DashboardBackend(cleanup): {} ended backends wait for acknowledgements, further ones beyond their "
        "share do not",
        kMaximumOutliving - left);
  }
  return isOutliving_;
}

void DashboardLink::stopOutliving() {
  stopBeingAwaited();
  if (std::exchange(isOutliving_, false)) outliving_.giveBack(1, holder_);
}

void DashboardLink::stopBeingAwaited() {
  if (std::exchange(isAwaited_, false)) --awaited_;
}

void DashboardLink::cleanUpIfRequested() {
  if (cleanupState_ == CleanupState::kNone) return;
  if (messageQueue_.empty()) {
    platform_.log.debug("DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.");
    cleanupSources();
  } else if (cleanupState_ == CleanupState::kRequested) {
    scheduleLastResort();
  }
}

void DashboardLink::scheduleLastResort() {
  cleanupState_ = CleanupState::kLastResortScheduled;
  platform_.log.debug("DashboardBackend(myPeriodicTask): scheduled last resort clean-up in {} ms.",
                      kLastResortDelay.count());
  lastResort_ = platform_.timers.startTimer(
      {.firstFiring = kLastResortDelay, .interval = {}, .leeway = kTimerLeeway}, networkProcQueue_,
      [self = shared_from_this()] { self->cleanupSources(); }, [] {});
}

void DashboardLink::cleanupSources() {
  if (std::exchange(hasEnded_, true)) return;
  stopOutliving();
  cancel(timer_);
  cancel(lastResort_);
  if (const auto source = readSource_.lock()) {
    source->cancel();  // whose handler closes the socket
  } else {
    socket_->close();
  }
}

}  // namespace zun
