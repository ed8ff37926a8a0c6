// The Seen set of a merge machine's output: the output keys written while reconciling. An
// open-addressing hash set (linear probing, power-of-two capacity) sized up front from the
// output's size, so that filling it during the merging scans does not stop a task for a
// rehash of a million keys.
//
// Its arrays live in one anonymous mapping. clear() empties the set at once but keeps the
// mapping; releaseSome() gives it back to the system a piece at a time from its end, because
// unmapping tens of megabytes of touched pages at once would stop one task run for
// milliseconds. Until then the memory is only counted in retainedBytes().
//
// Invariants: at most half of the slots are used; a key is only read where its used flag is
// set; T is trivially copyable and trivially destructible (keys are copied into raw memory).
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace Routing::Multicast::DynaCode {

template <class T, class Hash>
class SeenSet {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>,
                "Seen keys are copied into raw memory");

 public:
  // Memory given back per releaseSome() call by default: about 20 us of unmapping.
  static constexpr size_t kReleaseStep = 256 * 1024;

  SeenSet() = default;
  SeenSet(const SeenSet&) = delete;
  SeenSet& operator=(const SeenSet&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Makes room for n keys without growing.
  void reserve(size_t n) {
    size_t capacity = 16;
    while (capacity < 2 * n) capacity *= 2;
    if (capacity > capacity_) rehash(capacity);
  }

  // True when the key was not there yet.
  bool insert(const T& key) {
    if (2 * (size_ + 1) > capacity_) rehash(capacity_ == 0 ? 16 : 2 * capacity_);
    return place(key);
  }

  bool contains(const T& key) const {
    if (size_ == 0) return false;
    for (size_t pos = Hash()(key) & (capacity_ - 1); used_[pos];
         pos = (pos + 1) & (capacity_ - 1)) {
      if (keys_[pos] == key) return true;
    }
    return false;
  }

  // Empties the set; its memory is given back by releaseSome().
  void clear() {
    if (region_.bytes != 0) retired_.push_back(std::move(region_));
    region_ = Region();
    keys_ = nullptr;
    used_ = nullptr;
    capacity_ = 0;
    size_ = 0;
  }

  // Gives back up to `bytes` (rounded up to whole pages) of the memory of cleared arrays;
  // true while some is left.
  bool releaseSome(size_t bytes = kReleaseStep) {
    const size_t page = pageBytes();
    size_t budget = (bytes + page - 1) / page * page;
    while (budget != 0 && !retired_.empty()) {
      Region& r = retired_.back();
      const size_t piece = std::min(budget, r.bytes);
      r.bytes -= piece;
      ::munmap(r.base + r.bytes, piece);
      if (r.bytes == 0) {
        r.base = nullptr;
        retired_.pop_back();
      }
      budget -= piece;
    }
    return !retired_.empty();
  }
  // Memory of cleared arrays not given back yet.
  size_t retainedBytes() const {
    size_t total = 0;
    for (const Region& r : retired_) total += r.bytes;
    return total;
  }

 private:
  // One anonymous mapping (whole pages), unmapped on destruction.
  struct Region {
    std::byte* base = nullptr;
    size_t bytes = 0;
    Region() = default;
    explicit Region(size_t n) : bytes(n) {
      void* p = ::mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (p == MAP_FAILED) throw std::bad_alloc();
      base = static_cast<std::byte*>(p);
    }
    Region(Region&& o) noexcept
        : base(std::exchange(o.base, nullptr)), bytes(std::exchange(o.bytes, 0)) {}
    Region& operator=(Region&& o) noexcept {
      if (this != &o) {
        if (base) ::munmap(base, bytes);
        base = std::exchange(o.base, nullptr);
        bytes = std::exchange(o.bytes, 0);
      }
      return *this;
    }
    ~Region() {
      if (base) ::munmap(base, bytes);
    }
  };

  static size_t pageBytes() {
    static const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return page;
  }

  bool place(const T& key) {
    size_t pos = Hash()(key) & (capacity_ - 1);
    while (used_[pos]) {
      if (keys_[pos] == key) return false;
      pos = (pos + 1) & (capacity_ - 1);
    }
    used_[pos] = 1;
    new (&keys_[pos]) T(key);
    ++size_;
    return true;
  }

  // New arrays of `capacity` slots (fresh anonymous pages read as zero: no flag is set);
  // the outgrown ones are unmapped at once, as a growth rehashes every key anyway.
  void rehash(size_t capacity) {
    const size_t page = pageBytes();
    const size_t flagsOffset = (capacity * sizeof(T) + 63) / 64 * 64;
    Region region((flagsOffset + capacity + page - 1) / page * page);
    Region old = std::move(region_);
    T* oldKeys = keys_;
    const uint8_t* oldUsed = used_;
    const size_t oldCapacity = capacity_;
    region_ = std::move(region);
    keys_ = reinterpret_cast<T*>(region_.base);
    used_ = reinterpret_cast<uint8_t*>(region_.base + flagsOffset);
    capacity_ = capacity;
    size_ = 0;
    for (size_t i = 0; i < oldCapacity; ++i) {
      if (oldUsed[i]) place(oldKeys[i]);
    }
  }

  Region region_;
  std::vector<Region> retired_;
  T* keys_ = nullptr;
  uint8_t* used_ = nullptr;
  size_t capacity_ = 0;
  size_t size_ = 0;
};

}  // namespace Routing::Multicast::DynaCode
