#pragma once
// Intrusive reference counting: RefCounted objects, Ref<T> handles and
// WeakRef<T> observers. The count is atomic; copy-on-write code reads it to
// decide whether an object has a single owner.

#include <atomic>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "orvix/host/result.h"

namespace orvix {

class RefCounted;

namespace detail {
// Outlives its object while weak references remain, so a WeakRef can always ask
// it whether the object is still there.
struct WeakControl {
  std::atomic<uint32_t> weakCount{1};  // the object's own share counts as one
  std::atomic<RefCounted*> target;
  // Held while a Lock() touches the target and while the object detaches
  // itself, so that the target can't be freed under a Lock().
  std::atomic_flag busy;
  explicit WeakControl(RefCounted* t) : target(t) {}
  void Acquire() {
    while (busy.test_and_set(std::memory_order_acquire)) busy.wait(true, std::memory_order_relaxed);
  }
  void Unlock() {
    busy.clear(std::memory_order_release);
    busy.notify_one();
  }
  void AddWeak() { weakCount.fetch_add(1, std::memory_order_relaxed); }
  void ReleaseWeak() {
    if (weakCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
};
}  // namespace detail

class RefCounted {
 public:
  RefCounted() = default;
  RefCounted(const RefCounted&) : RefCounted() {}
  RefCounted& operator=(const RefCounted&) { return *this; }
  virtual ~RefCounted();

  void AddReference() const { _refCount.fetch_add(1, std::memory_order_relaxed); }
  void RemoveReference() const {
    if (_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) Destroy();
  }
  // The number of strong references. Exact when the caller holds the only
  // reference it can see; otherwise a snapshot.
  uint32_t GetReferenceCount() const { return _refCount.load(std::memory_order_acquire); }
  bool HasSingleOwner() const { return GetReferenceCount() == 1; }

  // Takes one more strong reference unless the count has already dropped to 0.
  bool TryAddReference() const;

  detail::WeakControl* GetWeakControl() const;

 private:
  void Destroy() const;

  mutable std::atomic<uint32_t> _refCount{0};
  mutable std::atomic<detail::WeakControl*> _weak{nullptr};
};

// A strong handle. Null allowed.
template <typename T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  // Takes a new reference to `p`.
  explicit Ref(T* p) : _p(p) {
    if (_p) _p->AddReference();
  }
  Ref(const Ref& o) : Ref(o._p) {}
  Ref(Ref&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
  template <typename U>
    requires std::is_convertible_v<U*, T*>
  Ref(const Ref<U>& o) : Ref(static_cast<T*>(o.Get())) {}
  template <typename U>
    requires std::is_convertible_v<U*, T*>
  Ref(Ref<U>&& o) noexcept : _p(o.Release()) {}
  ~Ref() {
    if (_p) _p->RemoveReference();
  }

  Ref& operator=(Ref o) noexcept {
    std::swap(_p, o._p);
    return *this;
  }

  // Adopts a pointer whose reference the caller already holds.
  static Ref Adopt(T* p) {
    Ref r;
    r._p = p;
    return r;
  }
  // Gives up the reference without releasing it.
  T* Release() { return std::exchange(_p, nullptr); }

  T* Get() const { return _p; }
  T& operator*() const { return *_p; }
  T* operator->() const { return _p; }
  explicit operator bool() const { return _p != nullptr; }
  void Reset() { Ref().Swap(*this); }
  void Swap(Ref& o) noexcept { std::swap(_p, o._p); }

  friend bool operator==(const Ref& a, const Ref& b) { return a._p == b._p; }
  friend bool operator==(const Ref& a, std::nullptr_t) { return a._p == nullptr; }

 private:
  T* _p = nullptr;
};

// Makes a reference-counted object; allocation failure is the out-of-memory error.
template <typename T, typename... Args>
Result<Ref<T>> NewRef(Args&&... args) {
  T* p = new (std::nothrow) T(std::forward<Args>(args)...);
  if (!p) return OutOfMemoryError();
  return Ref<T>(p);
}

// Makes a reference-counted object where allocation failure ends the process
// (std::bad_alloc), for objects whose construction is already under a boundary
// that turns bad_alloc into the out-of-memory error.
template <typename T, typename... Args>
Ref<T> MakeRef(Args&&... args) {
  return Ref<T>(new T(std::forward<Args>(args)...));
}

template <typename T, typename U>
Ref<T> StaticRefCast(const Ref<U>& r) {
  return Ref<T>(static_cast<T*>(r.Get()));
}
template <typename T, typename U>
Ref<T> DynamicRefCast(const Ref<U>& r) {
  return Ref<T>(dynamic_cast<T*>(r.Get()));
}

// A weak handle: does not keep its object alive, and yields a strong reference
// only while some other strong reference still exists.
template <typename T>
class WeakRef {
 public:
  WeakRef() = default;
  WeakRef(const Ref<T>& r) : WeakRef(r.Get()) {}
  explicit WeakRef(T* p) {
    if (p) {
      _control = p->GetWeakControl();
      _control->AddWeak();
      _p = p;
    }
  }
  WeakRef(const WeakRef& o) : _control(o._control), _p(o._p) {
    if (_control) _control->AddWeak();
  }
  WeakRef(WeakRef&& o) noexcept
      : _control(std::exchange(o._control, nullptr)), _p(std::exchange(o._p, nullptr)) {}
  ~WeakRef() {
    if (_control) _control->ReleaseWeak();
  }
  WeakRef& operator=(WeakRef o) noexcept {
    std::swap(_control, o._control);
    std::swap(_p, o._p);
    return *this;
  }

  // A strong reference, or null if the object is gone.
  Ref<T> Lock() const {
    if (!_control) return nullptr;
    _control->Acquire();
    RefCounted* t = _control->target.load(std::memory_order_acquire);
    bool alive = t && t->TryAddReference();
    _control->Unlock();
    return alive ? Ref<T>::Adopt(_p) : nullptr;
  }
  bool IsExpired() const {
    return !_control || _control->target.load(std::memory_order_acquire) == nullptr;
  }
  void Reset() { WeakRef().Swap(*this); }
  void Swap(WeakRef& o) noexcept {
    std::swap(_control, o._control);
    std::swap(_p, o._p);
  }

 private:
  detail::WeakControl* _control = nullptr;
  T* _p = nullptr;
};

}  // namespace orvix
