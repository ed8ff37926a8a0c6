// The Seen set of a merge machine's output: the output keys written while reconciling. An
// absl::flat_hash_set sized up front from the output's size, so that filling it during the
// merging scans does not stop a task for a rehash of a million keys.
//
// Its large arrays come from anonymous mappings (SeenArena). clear() empties the set at once
// but keeps the mapping of the cleared array; releaseSome() gives it back to the system a piece
// at a time from its end, because unmapping tens of megabytes of touched pages at once stopped
// one task run for ~1.5 ms. Until then the memory is only counted in retainedBytes(). An array
// outgrown by a rehash is unmapped at once: the rehash has touched every key anyway.
//
// Invariants: the set is usable again right after clear(); memory of cleared arrays is never
// reused, only unmapped; small arrays (below SeenArena::kMapThreshold) use the heap.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_set.h>

namespace Routing::Multicast::DynaCode {

// Where a Seen set's arrays live: heap for small ones, anonymous mappings for large ones, and
// the list of cleared mappings waiting to be unmapped.
class SeenArena {
 public:
  static constexpr size_t kMapThreshold = size_t{256} * 1024;

  SeenArena() = default;
  SeenArena(const SeenArena&) = delete;
  SeenArena& operator=(const SeenArena&) = delete;
  ~SeenArena() {
    for (Region& r : retired_) ::munmap(r.base, r.bytes);
  }

  void* allocate(size_t bytes) {
    if (bytes < kMapThreshold) return ::operator new(bytes);
    void* p =
        ::mmap(nullptr, roundUp(bytes), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    return p;
  }
  void deallocate(void* p, size_t bytes) {
    if (bytes < kMapThreshold) {
      ::operator delete(p);
    } else if (retiring_) {
      retired_.push_back(Region{static_cast<std::byte*>(p), roundUp(bytes)});
    } else {
      ::munmap(p, roundUp(bytes));
    }
  }

  // While set, large arrays freed are kept for releaseSome() instead of being unmapped.
  void retiringIs(bool retiring) { retiring_ = retiring; }

  bool releaseSome(size_t bytes) {
    size_t budget = roundUp(bytes);
    while (budget != 0 && !retired_.empty()) {
      Region& r = retired_.back();
      const size_t piece = std::min(budget, r.bytes);
      r.bytes -= piece;
      ::munmap(r.base + r.bytes, piece);
      if (r.bytes == 0) retired_.pop_back();
      budget -= piece;
    }
    return !retired_.empty();
  }
  size_t retainedBytes() const {
    size_t total = 0;
    for (const Region& r : retired_) total += r.bytes;
    return total;
  }

  static size_t pageBytes() {
    static const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return page;
  }

 private:
  struct Region {
    std::byte* base;
    size_t bytes;
  };
  static size_t roundUp(size_t bytes) {
    const size_t page = pageBytes();
    return (bytes + page - 1) / page * page;
  }

  bool retiring_ = false;
  std::vector<Region> retired_;
};

// The allocator the set's arrays are drawn with.
template <class T>
class SeenAllocator {
 public:
  using value_type = T;
  explicit SeenAllocator(SeenArena* arena) : arena_(arena) {}
  template <class U>
  SeenAllocator(const SeenAllocator<U>& o) : arena_(o.arena()) {}  // NOLINT: rebinding

  T* allocate(size_t n) { return static_cast<T*>(arena_->allocate(n * sizeof(T))); }
  void deallocate(T* p, size_t n) { arena_->deallocate(p, n * sizeof(T)); }
  SeenArena* arena() const { return arena_; }

  template <class U>
  bool operator==(const SeenAllocator<U>& o) const {
    return arena_ == o.arena();
  }

 private:
  SeenArena* arena_;
};

template <class T, class Hash>
class SeenSet {
 public:
  // Memory given back per releaseSome() call by default: about 20 us of unmapping.
  static constexpr size_t kReleaseStep = size_t{256} * 1024;

  SeenSet() : set_(0, Hash(), std::equal_to<T>(), SeenAllocator<T>(&arena_)) {}
  SeenSet(const SeenSet&) = delete;
  SeenSet& operator=(const SeenSet&) = delete;

  size_t size() const { return set_.size(); }
  bool empty() const { return set_.empty(); }
  // Makes room for n keys without growing.
  void reserve(size_t n) { set_.reserve(n); }
  // True when the key was not there yet.
  bool insert(const T& key) { return set_.insert(key).second; }
  bool contains(const T& key) const { return set_.contains(key); }

  // Empties the set; the memory of its arrays is given back by releaseSome().
  void clear() {
    arena_.retiringIs(true);
    {
      // A moved-from set is empty and keeps its allocator.
      Set cleared(std::move(set_));
    }
    arena_.retiringIs(false);
  }
  // Gives back up to `bytes` (rounded up to whole pages) of the memory of cleared arrays;
  // true while some is left.
  bool releaseSome(size_t bytes = kReleaseStep) { return arena_.releaseSome(bytes); }
  // Memory of cleared arrays not given back yet.
  size_t retainedBytes() const { return arena_.retainedBytes(); }

 private:
  using Set = absl::flat_hash_set<T, Hash, std::equal_to<T>, SeenAllocator<T>>;
  // Declared first: the set's arrays go back to it when the set is destroyed.
  SeenArena arena_;
  Set set_;
};

}  // namespace Routing::Multicast::DynaCode
