#include "orvix/host/ref.h"

namespace orvix {

RefCounted::~RefCounted() = default;

bool RefCounted::TryAddReference() const {
  uint32_t count = _refCount.load(std::memory_order_relaxed);
  while (count != 0) {
    if (_refCount.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel,
                                        std::memory_order_relaxed))
      return true;
  }
  return false;
}

detail::WeakControl* RefCounted::GetWeakControl() const {
  detail::WeakControl* control = _weak.load(std::memory_order_acquire);
  if (control) return control;
  auto* fresh = new detail::WeakControl(const_cast<RefCounted*>(this));
  if (_weak.compare_exchange_strong(control, fresh, std::memory_order_acq_rel)) return fresh;
  delete fresh;  // another thread won; `control` now holds its block
  return control;
}

void RefCounted::Destroy() const {
  if (detail::WeakControl* control = _weak.load(std::memory_order_acquire)) {
    // Detach under the control's lock: a Lock() in flight either took its
    // reference before the count reached 0 (it can't: we are destroying) or
    // sees the null target.
    control->Acquire();
    control->target.store(nullptr, std::memory_order_release);
    control->Unlock();
    control->ReleaseWeak();
  }
  delete this;
}

}  // namespace orvix
