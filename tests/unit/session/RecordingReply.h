#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/ServiceConnection.h"

namespace zun {

/// Keeps what one call was answered with. Any thread.
class RecordingReply final {
 public:
  struct Answer {
    std::optional<Array> values;                  // of a return
    std::string error;                            // name of an error
    std::optional<Array> shorter = std::nullopt;  // of a return that has a shorter form
    std::string errorText = {};
  };

  /// The reply to hand over; once.
  ServiceReply reply() { return ServiceReply(std::make_unique<Sink>(state_)); }

  [[nodiscard]] int count() const {
    const std::lock_guard lock(state_->mutex);
    return state_->count;
  }
  [[nodiscard]] Answer answer() const {
    const std::lock_guard lock(state_->mutex);
    return state_->answer;
  }
  /// One line: "return (...)", "error name", or "nothing".
  [[nodiscard]] std::string description() const {
    const std::lock_guard lock(state_->mutex);
    if (state_->count != 1) return state_->count == 0 ? "nothing" : "more than one";
    const Answer& answer = state_->answer;
    return answer.values ? "return " + Value(*answer.values).description() : "error " + answer.error;
  }
  /// What is answered where there is no room for that; "nothing" where it is all the same.
  [[nodiscard]] std::string shorter() const {
    const auto shorter = answer().shorter;
    return shorter ? "return " + Value(*shorter).description() : "nothing";
  }
  /// False when the deadline, which only a failure reaches, passed.
  [[nodiscard]] bool wait() const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, std::chrono::seconds(60), [this] { return state_->count > 0; });
  }

 private:
  struct State {
    mutable std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
    Answer answer;
  };
  class Sink final : public ServiceReply::Sink {
   public:
    explicit Sink(std::shared_ptr<State> state) : state_(std::move(state)) {}
    void sendReturn(const Array& values, const Array* shorter) override {
      note({values, {}, shorter != nullptr ? std::optional(*shorter) : std::nullopt});
    }
    void sendError(std::string_view name, std::string_view text) override {
      note({{}, std::string(name), {}, std::string(text)});
    }

   private:
    void note(Answer answer) {
      const std::lock_guard lock(state_->mutex);
      ++state_->count;
      state_->answer = std::move(answer);
      state_->changed.notify_all();
    }
    const std::shared_ptr<State> state_;
  };

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace zun
