// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_CALLBACK_H_
#define BASE_CALLBACK_H_

#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "base/logging.h"
#include "base/weak_ptr.h"

namespace base {

template <typename Signature>
class Callback;

// A copyable function object. Copies share what is bound: it is released when
// the last copy goes, whether or not it has run. A callback may destroy the
// last copy of itself while it runs.
template <typename R, typename... Args>
class Callback<R(Args...)> {
 public:
  Callback() = default;
  // Any function object that can be called with `Args`; it may be move-only.
  template <typename F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, Callback> &&
           std::is_invocable_r_v<R, std::remove_cvref_t<F>&, Args...>)
      // The requirement keeps it from hiding a copy, and like a function it is
      // passed as it is.
      // NOLINTNEXTLINE(bugprone-forwarding-*, google-explicit-constructor)
      Callback(F&& function)
      : state_(std::make_shared<State<std::remove_cvref_t<F>>>(
            std::forward<F>(function))) {}

  explicit operator bool() const { return state_ != nullptr; }
  void Reset() { state_.reset(); }

  // Requires: the callback is not null.
  R Run(Args... args) const {
    const std::shared_ptr<Invoker> keep_alive = state_;
    CHECK(keep_alive != nullptr) << "A null callback was run";
    return keep_alive->Invoke(std::forward<Args>(args)...);
  }

 private:
  struct Invoker {
    virtual ~Invoker() = default;
    virtual R Invoke(Args... args) = 0;
  };
  template <typename F>
  struct State final : Invoker {
    explicit State(F f) : function(std::move(f)) {}
    R Invoke(Args... args) override {
      return std::invoke(function, std::forward<Args>(args)...);
    }
    F function;
  };

  std::shared_ptr<Invoker> state_;
};

// Wraps a bound argument that moves into the call, so the callback can run
// only once: a second run is a fatal error.
template <typename T>
class Passed {
 public:
  explicit Passed(T value) : value_(std::move(value)) {}
  T Take() {
    CHECK(!taken_) << "A one-shot callback ran twice";
    taken_ = true;
    return std::move(value_);
  }

 private:
  T value_;
  bool taken_ = false;
};

// Marks a receiver that the caller guarantees to outlive the callback.
template <typename T>
struct Unretained {
  explicit Unretained(T* object) : get_(object) {}
  T* get() const { return get_; }

 private:
  T* get_;
};

namespace internal {

template <typename T>
inline constexpr bool kIsWeak = false;
template <typename T>
inline constexpr bool kIsWeak<WeakPtr<T>> = true;

template <typename T>
T& Unwrap(T& bound) {
  return bound;
}
template <typename T>
T Unwrap(Passed<T>& bound) {
  return bound.Take();
}

}  // namespace internal

// Binds `method` to `receiver` (a WeakPtr or Unretained) and to the first
// arguments; the caller supplies the rest. A call through a weak pointer whose
// object is gone does nothing, so such methods return void.
template <typename Method, typename Receiver, typename... Bound>
auto Bind(Method method, Receiver receiver, Bound&&... bound) {
  return [method, receiver = std::move(receiver),
          stored = std::tuple<std::decay_t<Bound>...>(
              std::forward<Bound>(bound)...)](auto&&... rest) mutable {
    auto* object = receiver.get();
    const auto call = [&](auto&... arguments) {
      return (object->*method)(internal::Unwrap(arguments)...,
                               std::forward<decltype(rest)>(rest)...);
    };
    if constexpr (internal::kIsWeak<Receiver>) {
      if (object) std::apply(call, stored);
    } else {
      return std::apply(call, stored);
    }
  };
}

}  // namespace base

#endif  // BASE_CALLBACK_H_
