#include "linux/loop/WorkerPool.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

namespace zun {

WorkerPool::WorkerPool(unsigned threads, const char* name) : name_(name) {
  const unsigned count = std::max(threads, 1U);
  threads_.reserve(count);
  try {
    for (unsigned i = 0; i < count; ++i) {
      const auto own = std::make_shared<Heartbeat>("a worker");
      heartbeats_.push_back(own);
      threads_.emplace_back([this, own] { work(*own); });
    }
  } catch (...) {
    end();  // those that the system had room for
    throw;
  }
}

WorkerPool::~WorkerPool() {
  end();
}

void WorkerPool::end() {
  {
    const MutexLock lock(mutex_);
    isEnding_ = true;
  }
  workCame_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void WorkerPool::execute(UniqueFunction<void()> job) {
  {
    const MutexLock lock(mutex_);
    if (jobs_.empty()) heartbeat_->works();
    jobs_.push_back(std::move(job));
    if (sleepers_ == 0) return;  // all are awake and look again before they sleep
  }
  workCame_.notify_one();
}

WorkerPool::Activity WorkerPool::activity() {
  const MutexLock lock(mutex_);
  const size_t unfinished = jobs_.size() + threads_.size() - sleepers_;
  return {jobsTaken_, unfinished, unfinished == 0};
}

void WorkerPool::work(Heartbeat& own) noexcept {
  pthread_setname_np(pthread_self(), name_);
  while (true) {
    own.rests();  // what a job holds has been let go of
    UniqueFunction<void()> job;
    {
      const MutexLock lock(mutex_);
      ++sleepers_;
      while (jobs_.empty() && !isEnding_) workCame_.wait(mutex_);
      --sleepers_;
      if (jobs_.empty()) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
      jobs_.empty() ? heartbeat_->rests() : heartbeat_->works();
      ++jobsTaken_;
    }
    own.works();
    job();
  }
}

}  // namespace zun
