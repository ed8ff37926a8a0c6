// Intrusive reference counting for entities. Counts change with atomic read-modify-write
// instructions only once the process has declared that it runs several threads
// (threadsInUseIs(true)); a single-threaded agent pays for plain loads and stores.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace Oro {

namespace detail {
inline std::atomic<bool> gThreadsInUse{false};
}

inline bool threadsInUse() { return detail::gThreadsInUse.load(std::memory_order_relaxed); }
// Declare (before starting the second thread) that reference counts may be touched
// from several threads.
inline void threadsInUseIs(bool v) { detail::gThreadsInUse.store(v, std::memory_order_seq_cst); }

// Base of every reference-counted object. Invariant: refs() counts the Ptr<> that
// point at the object; when it drops to zero onZeroReferences() runs, which by
// default deletes the object. A subclass may instead hand itself to another owner.
class RefCounted {
 public:
  RefCounted() = default;
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;
  virtual ~RefCounted() = default;

  uint32_t refs() const { return refs_.load(std::memory_order_relaxed); }

  void newRef() const {
    if (threadsInUse()) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void delRef() const {
    uint32_t left;
    if (threadsInUse()) {
      left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = refs_.load(std::memory_order_relaxed) - 1;
      refs_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) const_cast<RefCounted*>(this)->onZeroReferences();
  }

 protected:
  virtual void onZeroReferences() { delete this; }

 private:
  mutable std::atomic<uint32_t> refs_{0};
};

// Owning pointer to a RefCounted object. Null by default.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(const Ptr& o) : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(const Ptr<U>& o) : Ptr(o.get()) {}
  ~Ptr() {
    if (p_) p_->delRef();
  }
  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// A reference that keeps `p` alive for the caller's scope: an object's own entry point holds
// itself, so that a callback letting go of its last reference leaves it until the entry point
// returns. Null for an object without references (being built or destroyed).
template <class T>
Ptr<const T> keepAlive(const T* p) {
  return p && p->refs() > 0 ? Ptr<const T>(p) : nullptr;
}

}  // namespace Oro
