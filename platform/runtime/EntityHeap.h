// Where entities are allocated. Entity types that derive from HeapAllocated take their memory
// from the heap selected on the current thread (the process heap unless an EntityHeapScope
// selects another) and remember it, so that delete gives the memory back to the heap it came
// from whatever is selected then.
//
// Invariants: a scope restores the heap that was selected before it, also when it is left by
// an exception; heaps outlive the objects allocated from them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace Oro {

class EntityHeap {
 public:
  virtual ~EntityHeap() = default;
  // Null when the heap is exhausted.
  virtual void* allocate(size_t bytes) noexcept = 0;
  virtual void deallocate(void* p, size_t bytes) noexcept = 0;

  // The process heap (operator new).
  static EntityHeap& process();
  // The heap selected on this thread.
  static EntityHeap& current();

 private:
  friend class EntityHeapScope;
  static EntityHeap*& selected();
};

// Selects a heap for the current thread while it lives.
class EntityHeapScope {
 public:
  explicit EntityHeapScope(EntityHeap& heap) : previous_(EntityHeap::selected()) {
    EntityHeap::selected() = &heap;
  }
  ~EntityHeapScope() { EntityHeap::selected() = previous_; }
  EntityHeapScope(const EntityHeapScope&) = delete;
  EntityHeapScope& operator=(const EntityHeapScope&) = delete;

 private:
  EntityHeap* previous_;
};

// A heap over the process heap that counts what it hands out (for the figures of a store's
// process-side memory) and can be told to fail (for tests of the callers' failure paths).
class CountingHeap : public EntityHeap {
 public:
  void* allocate(size_t bytes) noexcept override;
  void deallocate(void* p, size_t bytes) noexcept override;
  uint64_t allocations() const { return allocations_.load(std::memory_order_relaxed); }
  uint64_t liveBytes() const { return live_.load(std::memory_order_relaxed); }
  void failIs(bool fail) { fail_.store(fail, std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> allocations_{0};
  std::atomic<uint64_t> live_{0};
  std::atomic<bool> fail_{false};
};

// Base of entity types allocated from the selected heap.
class HeapAllocated {
 public:
  static void* operator new(size_t bytes);
  static void* operator new(size_t bytes, const std::nothrow_t&) noexcept;
  static void operator delete(void* p) noexcept;
  static void operator delete(void* p, size_t) noexcept;
  static void operator delete(void* p, const std::nothrow_t&) noexcept;
};

}  // namespace Oro
