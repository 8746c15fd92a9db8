// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_WEAK_PTR_H_
#define BASE_WEAK_PTR_H_

#include <memory>
#include <utility>

namespace base {

template <typename T>
class WeakPtrFactory;

// A pointer that turns null when the object's WeakPtrFactory goes. Copying is
// cheap. All copies belong to the thread of the object.
template <typename T>
class WeakPtr {
 public:
  WeakPtr() = default;

  // Null if the object is gone.
  T* get() const { return alive_ && *alive_ ? object_ : nullptr; }
  T* operator->() const { return get(); }
  explicit operator bool() const { return get() != nullptr; }

 private:
  friend class WeakPtrFactory<T>;
  WeakPtr(std::shared_ptr<const bool> alive, T* object)
      : alive_(std::move(alive)), object_(object) {}

  std::shared_ptr<const bool> alive_;
  T* object_ = nullptr;
};

// Hands out weak pointers to its owner. Declared as the owner's last member,
// so that it is destroyed first and late completions find nothing.
template <typename T>
class WeakPtrFactory {
 public:
  explicit WeakPtrFactory(T* object)
      : alive_(std::make_shared<bool>(true)), object_(object) {}
  ~WeakPtrFactory() { *alive_ = false; }
  WeakPtrFactory(const WeakPtrFactory&) = delete;
  WeakPtrFactory& operator=(const WeakPtrFactory&) = delete;

  WeakPtr<T> GetWeakPtr() { return WeakPtr<T>(alive_, object_); }

 private:
  std::shared_ptr<bool> alive_;
  T* object_;
};

}  // namespace base

#endif  // BASE_WEAK_PTR_H_
