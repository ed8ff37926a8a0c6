#include "platform/runtime/EntityHeap.h"

#include <cstdlib>

namespace Oro {

namespace {

class ProcessHeap : public EntityHeap {
 public:
  void* allocate(size_t bytes) noexcept override { return ::operator new(bytes, std::nothrow); }
  void deallocate(void* p, size_t) noexcept override { ::operator delete(p); }
};

// Every block starts with the heap it came from and its size, then the object (aligned for
// any fundamental type).
struct BlockHeader {
  EntityHeap* heap;
  size_t bytes;
};
constexpr size_t kHeaderBytes = (sizeof(BlockHeader) + alignof(std::max_align_t) - 1) /
                                alignof(std::max_align_t) * alignof(std::max_align_t);

void* allocateFrom(EntityHeap& heap, size_t bytes) noexcept {
  void* p = heap.allocate(bytes + kHeaderBytes);
  if (!p) return nullptr;
  new (p) BlockHeader{&heap, bytes + kHeaderBytes};
  return static_cast<std::byte*>(p) + kHeaderBytes;
}

void release(void* object) noexcept {
  if (!object) return;
  void* p = static_cast<std::byte*>(object) - kHeaderBytes;
  const BlockHeader h = *static_cast<BlockHeader*>(p);
  h.heap->deallocate(p, h.bytes);
}

}  // namespace

// Never destroyed, like every registry a root's destructor reaches: a root held in a global
// is released after main returns, when function-local statics made inside main are gone.
EntityHeap& EntityHeap::process() {
  static auto* heap = new ProcessHeap;
  return *heap;
}

EntityHeap*& EntityHeap::selected() {
  thread_local EntityHeap* heap = nullptr;
  return heap;
}

EntityHeap& EntityHeap::current() {
  EntityHeap* h = selected();
  return h ? *h : process();
}

void* CountingHeap::allocate(size_t bytes) noexcept {
  if (fail_.load(std::memory_order_relaxed)) return nullptr;
  void* p = ::operator new(bytes, std::nothrow);
  if (p) {
    allocations_.fetch_add(1, std::memory_order_relaxed);
    live_.fetch_add(bytes, std::memory_order_relaxed);
  }
  return p;
}

void CountingHeap::deallocate(void* p, size_t bytes) noexcept {
  live_.fetch_sub(bytes, std::memory_order_relaxed);
  ::operator delete(p);
}

void* HeapAllocated::operator new(size_t bytes) {
  void* p = allocateFrom(EntityHeap::current(), bytes);
  if (!p) throw std::bad_alloc();
  return p;
}

void* HeapAllocated::operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return allocateFrom(EntityHeap::current(), bytes);
}

void HeapAllocated::operator delete(void* p) noexcept {
  release(p);
}

void HeapAllocated::operator delete(void* p, size_t) noexcept {
  release(p);
}

void HeapAllocated::operator delete(void* p, const std::nothrow_t&) noexcept {
  release(p);
}

}  // namespace Oro
