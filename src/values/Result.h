#pragma once

#include <utility>
#include <variant>

namespace zun {

/// What an operation gave: a value, or why there is none.
template <typename T, typename E>
class [[nodiscard]] Result final {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  static Result failure(E error) { return Result(std::in_place_index<1>, std::move(error)); }

  explicit operator bool() const { return content_.index() == 0; }
  T& operator*() { return std::get<0>(content_); }
  const T& operator*() const { return std::get<0>(content_); }
  T* operator->() { return &std::get<0>(content_); }
  const T* operator->() const { return &std::get<0>(content_); }
  const E& error() const { return std::get<1>(content_); }

 private:
  Result(std::in_place_index_t<1> which, E error) : content_(which, std::move(error)) {}
  std::variant<T, E> content_;
};

}  // namespace zun
