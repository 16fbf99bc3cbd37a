#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace zun {

template <typename Signature>
class UniqueFunction;

/// A callable that can be moved but not copied, so that it may own what only one
/// party can own (a reply, a file, a completion). Empty after a move.
///
/// Letting go of a UniqueFunction destroys what it owns: a reply that was never
/// given is thereby noticed by its owner.
template <typename Result, typename... Arguments>
class UniqueFunction<Result(Arguments...)> final {
 public:
  UniqueFunction() = default;
  UniqueFunction(std::nullptr_t) {}

  template <typename Callable>
  requires(!std::is_same_v<std::decay_t<Callable>, UniqueFunction> &&
           std::is_invocable_r_v<Result, std::decay_t<Callable>&, Arguments...>)
      UniqueFunction(Callable&& callable)
      : target_(std::make_unique<Target<std::decay_t<Callable>>>(std::forward<Callable>(callable))) {}

  UniqueFunction(UniqueFunction&&) noexcept = default;
  UniqueFunction& operator=(UniqueFunction&&) noexcept = default;

  explicit operator bool() const { return target_ != nullptr; }

  Result operator()(Arguments... arguments) const {
    return target_->call(std::forward<Arguments>(arguments)...);
  }

 private:
  struct AnyTarget {
    virtual ~AnyTarget() = default;
    virtual Result call(Arguments... arguments) = 0;
  };

  template <typename Callable>
  struct Target final : AnyTarget {
    explicit Target(Callable callable) : callable_(std::move(callable)) {}
    Result call(Arguments... arguments) override { return callable_(std::forward<Arguments>(arguments)...); }
    Callable callable_;
  };

  std::unique_ptr<AnyTarget> target_;
};

}  // namespace zun
