#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Clock.h"
#include "platform/SystemLog.h"
#include "values/Result.h"

namespace zun {

enum class NameKind : bool { kUser, kGroup };

/// The number of a user or group with this name, none where there is none, or why that
/// cannot be told now. May block for long.
using NameLookup =
    std::function<Result<std::optional<uint32_t>, std::string>(NameKind kind, const std::string& name)>;

/// As the system's name service has it.
[[nodiscard]] Result<std::optional<uint32_t>, std::string> lookUpSystemName(NameKind kind,
                                                                            const std::string& name);

/// Knows the numbers of users and groups by their names.
///
///   not known ──asked for──▶ looked up ──found──▶ known ──lookUpAgain; 10 min──▶ known, looked up
///       ▲                        └──nobody has it, no answer (a line)──┐
///       └──────────────── asked for, 10 s later ───────────────────────┘
///
/// A name service may take a minute to answer: names are looked up on a thread of their
/// own, one after the other, and nobody else waits for it.
///
/// Threading: any thread. Ownership: the store's; `clock` and `log` outlive it. A look-up
/// that hangs when it ends is left to itself.
class NameResolver final {
 public:
  /// Between two look-ups of a name that is not known.
  static constexpr std::chrono::seconds kInterval{10};
  /// And of one that is: who has it may have changed.
  static constexpr std::chrono::minutes kKnownInterval{10};

  NameResolver(NameLookup lookup, const Clock& clock, SystemLog& log);
  ~NameResolver();
  NameResolver(const NameResolver&) = delete;
  NameResolver& operator=(const NameResolver&) = delete;

  /// The number as far as it is known now; it is looked up where that is due. Does not wait.
  [[nodiscard]] std::optional<uint32_t> numberOf(NameKind kind, const std::string& name);
  /// Looks this name up, whether it is known or not. What is known holds until the answer.
  void lookUpAgain(NameKind kind, const std::string& name);
  /// Waits until every look-up under way has its answer, or for `patience`.
  void wait(std::chrono::milliseconds patience);

 private:
  using Key = std::pair<NameKind, std::string>;
  struct Entry;
  struct State;
  void lookUp(const Key& key, Entry& entry);
  static void work(const std::shared_ptr<State>& state);

  const std::shared_ptr<State> state_;  // the thread's too
};

}  // namespace zun
