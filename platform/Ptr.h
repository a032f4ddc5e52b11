// Intrusive reference counting: `PtrInterface` and `Ptr<T>`.
//
// Every entity carries its own count, so a `Ptr<T>` is one machine word and
// can be made from a raw pointer at any time (`Ptr<T>(this)`) without a
// control block. An object lives exactly as long as some `Ptr` to it does;
// when the last one goes, `onZeroReferences()` runs (by default it deletes).
// `Ptr<T const>` shares the same count.
//
// Counts are plain integers: entities belong to one event-loop thread. Build
// with OLK_ATOMIC_REFCOUNT to make them atomic when pointers must cross
// threads; nothing else in an entity becomes thread-safe by that.
#pragma once

#include <cstddef>
#include <functional>
#include <tuple>
#include <utility>

#include "platform/Types.h"

#if OLK_ATOMIC_REFCOUNT
#include <atomic>
#endif

namespace Zum {

class PtrInterface {
 public:
  PtrInterface() = default;
  // Copying an object never copies who refers to it.
  PtrInterface(const PtrInterface&) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  U32 references() const { return refs_; }
  void newRef() const { ++refs_; }
  void deleteRef() const {
    if (--refs_ == 0) onZeroReferences();
  }

 protected:
  virtual ~PtrInterface() = default;
  // Runs when the count drops to zero; the default deletes the object.
  virtual void onZeroReferences() const { delete this; }

 private:
#if OLK_ATOMIC_REFCOUNT
  mutable std::atomic<U32> refs_{0};
#else
  mutable U32 refs_ = 0;
#endif
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) { acquire(); }
  Ptr(const Ptr& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(const Ptr<U>& o) noexcept : p_(o.ptr()) { acquire(); }
  template <class U>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { reset(); }

  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void reset() noexcept {
    // Clear first: the object's tear-down may look at this pointer.
    if (T* p = std::exchange(p_, nullptr)) p->deleteRef();
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up this pointer's reference without dropping it; for moves only.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  bool operator==(const Ptr<U>& o) const noexcept { return p_ == o.ptr(); }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  bool operator==(const T* p) const noexcept { return p_ == p; }
  template <class U>
  bool operator<(const Ptr<U>& o) const noexcept { return std::less<const void*>()(p_, o.ptr()); }

 private:
  void acquire() const noexcept {
    if (p_) p_->newRef();
  }

  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptr_static_cast(const Ptr<U>& p) {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> ptr_dynamic_cast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

// Keeps objects alive to the end of the enclosing scope: the one rule for
// "this callback may destroy me". Create one on the stack in any function
// that calls out (a notifiee, a callback, an owner's handler) to code that
// may drop the last other reference to `this`, or to an object the function
// still touches afterwards:
//
//   void Reactor::onTime() {
//     Zum::DestructorGuard guard(this, owner_);
//     owner_->handleClock();  // may release both; they go with `guard`
//   }
//
// Objects released meanwhile are destroyed when the guard goes, after the
// function's last use of them. Null pointers are allowed and hold nothing.
template <class... T>
class DestructorGuard {
 public:
  explicit DestructorGuard(T*... objects) noexcept : held_(Ptr<T>(objects)...) {}
  DestructorGuard(const DestructorGuard&) = delete;
  DestructorGuard& operator=(const DestructorGuard&) = delete;

 private:
  std::tuple<Ptr<T>...> held_;
};

}  // namespace Zum

template <class T>
struct std::hash<Zum::Ptr<T>> {
  size_t operator()(const Zum::Ptr<T>& p) const noexcept { return std::hash<const void*>()(p.ptr()); }
};
