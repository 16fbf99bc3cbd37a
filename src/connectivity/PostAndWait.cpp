#include "connectivity/PostAndWait.h"

#include <condition_variable>
#include <utility>

#include "platform/Mutex.h"

namespace zun {

namespace {

/// Where the thread that posts waits for the one that answers.
class Rendezvous final {
 public:
  /// None: dropped.
  void end(std::optional<PostOutcome> outcome) {
    const MutexLock lock(mutex_);
    outcome_ = std::move(outcome);
    isOver_ = true;
    over_.notify_all();
  }

  /// None: dropped.
  std::optional<PostOutcome> wait() {
    const MutexLock lock(mutex_);
    while (!isOver_) over_.wait(mutex_);
    return std::move(outcome_);
  }

 private:
  Mutex mutex_;
  std::condition_variable_any over_;
  bool isOver_ GUARDED_BY(mutex_) = false;
  std::optional<PostOutcome> outcome_ GUARDED_BY(mutex_);
};

/// Belongs to the completion, wherever that goes: its end without an answer is told too.
class Answer final {
 public:
  explicit Answer(std::shared_ptr<Rendezvous> rendezvous) : rendezvous_(std::move(rendezvous)) {}
  Answer(Answer&&) noexcept = default;
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() {
    if (rendezvous_) rendezvous_->end(std::nullopt);
  }

  void give(PostOutcome outcome) {
    if (const auto rendezvous = std::exchange(rendezvous_, nullptr)) rendezvous->end(std::move(outcome));
  }

 private:
  std::shared_ptr<Rendezvous> rendezvous_;
};

}  // namespace

std::string PostOutcome::errorDescription() const {
  return error ? error->description : "(null)";
}

PostOutcome postAndWait(std::shared_ptr<ReportingSessionConnectivityInterface> helper, URLRequest request) {
  const auto rendezvous = std::make_shared<Rendezvous>();
  helper->postURLRequestWithCompletionHandler(
      std::move(request),
      [answer = Answer(rendezvous)](std::string receivedData, const std::optional<URLResponse>& response,
                                    const std::optional<Error>& error) mutable {
        answer.give({std::move(receivedData), response, error});
      });
  helper.reset();
  if (std::optional<PostOutcome> outcome = rendezvous->wait()) return std::move(*outcome);
  constexpr auto kCode = static_cast<int32_t>(URLSessionError::kCancelled);
  return {.error = Error{kURLErrorDomain, kCode, "the request was dropped"}};
}

}  // namespace zun
