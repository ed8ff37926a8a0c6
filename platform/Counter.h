// Named 64-bit statistics counters. A counter's value lives in a std::atomic<uint64_t> that
// is its own member until storageIs() rebinds it (for instance to a slot in a shared-memory
// table header, where tools in other processes read it). Only one thread writes a counter:
// inc() is a relaxed load and store, without a locked instruction; readers on other threads
// or processes see whole values.
//
// Every counter is listed in CounterRegistry::global() from construction to destruction.
// Several counters may share a name (one per entity instance); the owner label tells them
// apart.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace Oro {

class CounterRegistry;

class Counter {
 public:
  explicit Counter(std::string name, std::string owner = {});
  ~Counter();
  Counter(const Counter&) = delete;
  Counter& operator=(const Counter&) = delete;

  const std::string& name() const { return name_; }
  std::string owner() const;
  void ownerIs(std::string owner);

  void inc(uint64_t n = 1) {
    std::atomic<uint64_t>* s = storage_.load(std::memory_order_relaxed);
    s->store(s->load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
  }
  uint64_t value() const {
    return storage_.load(std::memory_order_relaxed)->load(std::memory_order_relaxed);
  }

  // Moves the value to *storage (copying the current value there); nullptr moves it back
  // into the counter itself. Called by the writing thread.
  void storageIs(std::atomic<uint64_t>* storage);
  const std::atomic<uint64_t>* storage() const { return storage_.load(std::memory_order_relaxed); }

 private:
  friend class CounterRegistry;
  std::string name_;
  std::string owner_;  // guarded by the registry's lock
  std::atomic<uint64_t> own_{0};
  std::atomic<std::atomic<uint64_t>*> storage_{&own_};
  Counter* prev_ = nullptr;  // registration list, in construction order
  Counter* next_ = nullptr;
};

struct CounterSample {
  std::string name;
  std::string owner;
  uint64_t value;
  bool operator==(const CounterSample&) const = default;
};

class CounterRegistry {
 public:
  static CounterRegistry& global();

  // Every live counter, in the order they were constructed.
  std::vector<CounterSample> list() const;
  // Sum of the values of every counter with this name (0 when there is none).
  uint64_t total(const std::string& name) const;
  size_t size() const;
  // One line per counter: "<name> <value>" or "<name> [<owner>] <value>".
  void print(FILE* out) const;

 private:
  friend class Counter;
  CounterRegistry() = default;
  void add(Counter* c);
  void remove(Counter* c);

  mutable std::mutex mu_;
  Counter* head_ = nullptr;
  Counter* tail_ = nullptr;
  size_t size_ = 0;
};

}  // namespace Oro
