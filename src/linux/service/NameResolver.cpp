#include "linux/service/NameResolver.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Mutex.h"

namespace zun {

namespace {

constexpr size_t kFirstBufferBytes = size_t{16} << 10;
constexpr size_t kLargestBufferBytes = size_t{16} << 20;  // a group tells all of its members

const char* nameOf(NameKind kind) {
  return kind == NameKind::kUser ? "user" : "group";
}

/// How some systems say that nobody has the name.
bool meansNobody(int error) {
  return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

}  // namespace

Result<std::optional<uint32_t>, std::string> lookUpSystemName(NameKind kind, const std::string& name) {
  using Answer = Result<std::optional<uint32_t>, std::string>;
  for (std::string buffer(kFirstBufferBytes, '\0');; buffer.resize(buffer.size() * 4)) {
    std::optional<uint32_t> number;
    int error = 0;
    if (kind == NameKind::kUser) {
      passwd entry{};
      passwd* found = nullptr;
      error = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
      if (found != nullptr) number = found->pw_uid;
    } else {
      group entry{};
      group* found = nullptr;
      error = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
      if (found != nullptr) number = found->gr_gid;
    }
    if (error == ERANGE && buffer.size() < kLargestBufferBytes) continue;
    if (number || meansNobody(error)) return number;
    return Answer::failure(std::generic_category().message(error));
  }
}

struct NameResolver::Entry {
  std::optional<uint32_t> number;
  std::optional<std::chrono::nanoseconds> lookedUp;  // when that began, the last time
  bool isAwaited = false;
  std::string told;  // why it is not known, as the log has it
};

struct NameResolver::State {
  State(NameLookup lookUpName, const Clock& theClock, SystemLog& theLog)
      : lookup(std::move(lookUpName)), clock(theClock), log(theLog) {}

  void take(const Key& key, const Result<std::optional<uint32_t>, std::string>& answer) REQUIRES(mutex);

  const NameLookup lookup;
  const Clock& clock;  // not touched any more once it is stopping, nor the log
  SystemLog& log;
  Mutex mutex;
  std::condition_variable_any changed;
  std::map<Key, Entry> entries GUARDED_BY(mutex);
  std::deque<Key> queue GUARDED_BY(mutex);
  bool hasThread GUARDED_BY(mutex) = false;
  bool isStopping GUARDED_BY(mutex) = false;
};

NameResolver::NameResolver(NameLookup lookup, const Clock& clock, SystemLog& log)
    : state_(std::make_shared<State>(std::move(lookup), clock, log)) {}

NameResolver::~NameResolver() {
  const MutexLock lock(state_->mutex);
  state_->isStopping = true;
}

std::optional<uint32_t> NameResolver::numberOf(NameKind kind, const std::string& name) {
  const MutexLock lock(state_->mutex);
  const auto known = state_->entries.try_emplace({kind, name}).first;
  Entry& entry = known->second;
  const std::chrono::nanoseconds interval = entry.number ? kKnownInterval : kInterval;
  if (!entry.lookedUp || state_->clock.monotonic() - *entry.lookedUp >= interval) lookUp(known->first, entry);
  return entry.number;
}

void NameResolver::lookUpAgain(NameKind kind, const std::string& name) {
  const MutexLock lock(state_->mutex);
  const auto known = state_->entries.try_emplace({kind, name}).first;
  lookUp(known->first, known->second);
}

void NameResolver::wait(std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  const MutexLock lock(state_->mutex);
  const auto isAwaited = [](const auto& entry) { return entry.second.isAwaited; };
  while (std::any_of(state_->entries.begin(), state_->entries.end(), isAwaited)) {
    if (state_->changed.wait_until(state_->mutex, end) == std::cv_status::timeout) return;
  }
}

/// The thread lives as long as there is something to look up.
void NameResolver::lookUp(const Key& key, Entry& entry) REQUIRES(state_->mutex) {
  if (std::exchange(entry.isAwaited, true)) return;
  entry.lookedUp = state_->clock.monotonic();
  state_->queue.push_back(key);
  if (state_->hasThread) return;
  try {
    std::thread([state = state_] { work(state); }).detach();
    state_->hasThread = true;
  } catch (const std::system_error& error) {
    state_->queue.clear();
    entry.isAwaited = false;
    state_->log.error("entitlements: the {} '{}' cannot be looked up: {}", nameOf(key.first), key.second,
                      error.what());
  }
}

void NameResolver::work(const std::shared_ptr<State>& state) {
  while (true) {
    Key key;
    {
      const MutexLock lock(state->mutex);
      state->hasThread = !state->queue.empty() && !state->isStopping;
      if (!state->hasThread) return;
      key = state->queue.front();
      state->queue.pop_front();
    }
    const auto answer = state->lookup(key.first, key.second);
    const MutexLock lock(state->mutex);
    if (!state->isStopping) state->take(key, answer);
  }
}

void NameResolver::State::take(const Key& key, const Result<std::optional<uint32_t>, std::string>& answer) {
  Entry& entry = entries[key];
  entry.isAwaited = false;
  std::string trouble;
  if (!answer) {
    trouble = answer.error();  // and what was known holds
  } else {
    entry.number = *answer;
    if (!entry.number) trouble = "nobody has it";
  }
  if (!trouble.empty() && trouble != entry.told) {
    log.error("entitlements: the {} '{}' is not known: {}", nameOf(key.first), key.second, trouble);
  }
  entry.told = std::move(trouble);
  changed.notify_all();
}

}  // namespace zun
