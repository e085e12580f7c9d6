// Intrusive reference-counted pointer: an object dies with its last Ptr.
//
// The count lives in the object (PtrInterface), so a Ptr is one machine word and
// a raw pointer can be turned back into a Ptr without a separate control block.
// Counts are plain integers; define XPLPM_THREADSAFE_PTR to make them atomic.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#ifdef XPLPM_THREADSAFE_PTR
#include <atomic>
#endif

#include "platform/Types.h"

namespace XpLib {

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(const PtrInterface&) : refs_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  U32 references() const { return refs_; }
  void newRef() const { ++refs_; }
  void deleteRef() const {
    if (--refs_ == 0) onZeroReferences();
  }

 protected:
  virtual ~PtrInterface() = default;
  // The default frees the object; an object may instead hand itself back to a pool.
  virtual void onZeroReferences() const { delete this; }

 private:
#ifdef XPLPM_THREADSAFE_PTR
  mutable std::atomic<U32> refs_{0};
#else
  mutable U32 refs_ = 0;
#endif
};

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { acquire(); }
  Ptr(const Ptr& o) : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) : p_(o.ptr()) { acquire(); }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { drop(); }

  Ptr& operator=(const Ptr& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    drop();
    p_ = nullptr;
    return *this;
  }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without dropping the reference; used by converting moves.
  T* release() { return std::exchange(p_, nullptr); }

  template <class U>
  bool operator==(const Ptr<U>& o) const { return p_ == o.ptr(); }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }
  template <class U>
  bool operator<(const Ptr<U>& o) const { return std::less<const void*>()(p_, o.ptr()); }

 private:
  void acquire() const {
    if (p_) p_->newRef();
  }
  void drop() {
    if (p_) std::exchange(p_, nullptr)->deleteRef();
  }

  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> dynamic_ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace XpLib
