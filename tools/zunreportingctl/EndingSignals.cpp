#include "EndingSignals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace zun {

namespace {

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

EndingSignals::EndingSignals() {
  const sigset_t signals = endingSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signals_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  // Better ended the hard way than not at all.
  if (signals_ < 0) sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

EndingSignals::~EndingSignals() {
  if (signals_ >= 0) close(signals_);
  const sigset_t signals = endingSignals();
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

EndingSignals::Event EndingSignals::wait(int descriptor, int milliseconds) const {
  pollfd polled[] = {{signals_, POLLIN, 0}, {descriptor, POLLIN, 0}};
  const int ready = poll(polled, 2, milliseconds);
  if (ready == 0) return Event::kTimeout;
  if (ready < 0 || polled[0].revents == 0) return Event::kReadable;
  // Taken, so that only a further signal ends the process once they are let through again.
  signalfd_siginfo taken;
  return read(signals_, &taken, sizeof taken) > 0 ? Event::kSignal : Event::kReadable;
}

}  // namespace zun
