#pragma once

#include <cerrno>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/URLSession.h"
#include "support/TestPlatform.h"
#include "util/ReportingServices.h"

/// URL sessions without a network: what is asked for is kept, and ends when the fuzzer says so.
class FuzzURLSessions final : public zun::URLSessionService {
 public:
  /// Ends everything that waits: with that status, or an error where it is 0.
  void answerAll(int32_t status) {
    for (auto& end : std::exchange(waiting_, {})) end(status);
  }
  /// What was asked for since the last time.
  std::vector<zun::URLRequest> takeRequests() { return std::exchange(requests_, {}); }

  std::shared_ptr<zun::URLSession> makeSession(const zun::URLSessionConfiguration&,
                                               std::shared_ptr<zun::URLSessionDelegate> delegate,
                                               std::shared_ptr<zun::SerialQueue> delegateQueue) override {
    return std::make_shared<Session>(*this, std::move(delegate), std::move(delegateQueue));
  }

 private:
  class Session;
  class Task final : public zun::URLSessionTask, public std::enable_shared_from_this<Task> {
   public:
    Task(std::shared_ptr<Session> session, zun::URLRequest request)
        : session_(std::move(session)), request_(std::move(request)) {}
    ~Task() override {
      if (!hasEnded_) session_->taskEnded();
    }
    void setTaskDescription(std::string description) override { description_ = std::move(description); }
    std::string taskDescription() const override { return description_; }
    void resume() override {
      session_->service_.requests_.push_back(request_);
      session_->service_.waiting_.push_back(
          [self = shared_from_this()](int32_t status) { self->end(status); });
    }

   private:
    void end(int32_t status) {
      hasEnded_ = true;
      session_->queue_->async([self = shared_from_this(), status] {
        zun::URLResponse response{self->request_.url, status, {}};
        if (status == 0) {
          self->session_->delegate_->didCompleteWithError(
              *self->session_, *self, std::nullopt,
              zun::Error{"fuzz", static_cast<int32_t>(zun::URLSessionError::kConnectionLost), "lost"});
        } else {
          self->session_->delegate_->didReceiveResponse(*self->session_, *self, response);
          self->session_->delegate_->didReceiveData(*self->session_, *self, "{}");
          self->session_->delegate_->didCompleteWithError(*self->session_, *self, response, std::nullopt);
        }
        self->session_->taskEnded();
      });
    }

    const std::shared_ptr<Session> session_;
    const zun::URLRequest request_;
    std::string description_;
    bool hasEnded_ = false;
  };
  class Session final : public zun::URLSession, public std::enable_shared_from_this<Session> {
   public:
    Session(FuzzURLSessions& service, std::shared_ptr<zun::URLSessionDelegate> delegate,
            std::shared_ptr<zun::SerialQueue> queue)
        : service_(service), delegate_(std::move(delegate)), queue_(std::move(queue)) {}
    void setSessionDescription(std::string description) override { description_ = std::move(description); }
    std::string sessionDescription() const override { return description_; }
    zun::Result<std::shared_ptr<zun::URLSessionTask>, zun::Error> dataTaskWithRequest(
        zun::URLRequest request) override {
      if (isInvalidated_) {
        return zun::Result<std::shared_ptr<zun::URLSessionTask>, zun::Error>::failure(
            {"fuzz", static_cast<int32_t>(zun::URLSessionError::kCancelled), "invalidated"});
      }
      ++tasks_;
      return std::shared_ptr<zun::URLSessionTask>(
          std::make_shared<Task>(shared_from_this(), std::move(request)));
    }
    zun::Result<std::shared_ptr<zun::URLSessionTask>, zun::Error> uploadTaskWithRequest(
        zun::URLRequest request, const std::string&) override {
      return dataTaskWithRequest(std::move(request));
    }
    void finishTasksAndInvalidate() override {
      if (std::exchange(isInvalidated_, true)) return;
      tellOfEnd();
    }

   private:
    friend class Task;
    void taskEnded() {
      --tasks_;
      tellOfEnd();
    }
    void tellOfEnd() {
      if (!isInvalidated_ || tasks_ > 0 || delegate_ == nullptr) return;
      queue_->async([self = shared_from_this(), delegate = std::exchange(delegate_, nullptr)] {
        delegate->didBecomeInvalidWithError(*self, std::nullopt);
      });
    }

    FuzzURLSessions& service_;
    std::shared_ptr<zun::URLSessionDelegate> delegate_;
    const std::shared_ptr<zun::SerialQueue> queue_;
    std::string description_;
    int tasks_ = 0;
    bool isInvalidated_ = false;
  };

  std::vector<zun::URLRequest> requests_;
  std::vector<zun::UniqueFunction<void(int32_t)>> waiting_;
};

/// Sockets whose datagrams all go out and reach nobody.
class FuzzSockets final : public zun::DatagramSocketService {
 public:
  zun::Result<std::unique_ptr<zun::DatagramSocket>, zun::Error> makeSocket() override {
    return std::unique_ptr<zun::DatagramSocket>(std::make_unique<Socket>());
  }

 private:
  class Source final : public zun::ReadSource {
   public:
    Source(std::shared_ptr<zun::SerialQueue> queue, zun::UniqueFunction<void()> cancelled)
        : queue_(std::move(queue)), cancelled_(std::move(cancelled)) {}
    void cancel() override {
      if (cancelled_) queue_->async(std::exchange(cancelled_, nullptr));
    }

   private:
    const std::shared_ptr<zun::SerialQueue> queue_;
    zun::UniqueFunction<void()> cancelled_;
  };
  class Socket final : public zun::DatagramSocket {
   public:
    std::optional<zun::Error> bindToAnyAddress() override { return std::nullopt; }
    std::optional<zun::Error> connect(const zun::IPv4SocketAddress&) override { return std::nullopt; }
    zun::Result<size_t, zun::Error> send(std::span<const std::byte> datagram) override {
      return datagram.size();
    }
    zun::Result<size_t, zun::Error> receive(std::span<std::byte>) override {
      return zun::Result<size_t, zun::Error>::failure(
          {std::string(zun::kPOSIXErrorDomain), EAGAIN, "nothing"});
    }
    std::shared_ptr<zun::ReadSource> startReadSource(std::shared_ptr<zun::SerialQueue> queue,
                                                     zun::UniqueFunction<void()>,
                                                     zun::UniqueFunction<void()> cancelled) override {
      return std::make_shared<Source>(std::move(queue), std::move(cancelled));
    }
    void close() override {}
  };
};

/// A platform on one thread: jobs run when they are cranked, and nothing leaves the process.
class FuzzWorld final {
 public:
  FuzzWorld() { platform_.log.muteBelow(zun::LogLevel::kDebug); }

  /// Runs what waits, and forgets what was logged.
  void run() {
    executor_.runAll();
    platform_.log.clear();
  }

  zun::ManualExecutor executor_;
  zun::TestPlatform platform_{&executor_};
  FuzzURLSessions urlSessions_;
  FuzzSockets sockets_;
  const zun::PlatformServices services_{
      platform_.log,    platform_.clock,        platform_.random, platform_.files,   platform_.defaults,
      platform_.device, platform_.locale,       platform_.bundle, executor_,         platform_.timers,
      urlSessions_,     platform_.transactions, sockets_,         platform_.modules, platform_.powerLog};
  const zun::DeviceIdentity identity_{services_};
  zun::MessageLog messageLog_{services_};
  const zun::ReportingServices reporting_{services_, identity_, messageLog_};
};
