// Storage for an object that lives until the process ends.
//
// For function-local statics that threads may still use while the process exits: the destructor is
// trivial, the object's own never runs. Memory that the object holds when the module is unloaded is
// lost, so such an object holds none while it is idle.
#pragma once

#include <new>
#include <type_traits>
#include <utility>

namespace zelta::platform {

template <typename T>
class NeverDestroyed {
 public:
  template <typename... Arguments>
  explicit NeverDestroyed(Arguments&&... arguments) noexcept(
      std::is_nothrow_constructible_v<T, Arguments...>)
      : object_(::new (static_cast<void*>(storage_)) T(std::forward<Arguments>(arguments)...)) {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& get() noexcept { return *object_; }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
  T* object_;  // in storage_
};

}  // namespace zelta::platform
