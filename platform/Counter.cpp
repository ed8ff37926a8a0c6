#include "platform/Counter.h"

#include <fmt/format.h>

namespace Oro {

Counter::Counter(std::string name, std::string owner)
    : name_(std::move(name)), owner_(std::move(owner)) {
  CounterRegistry::global().add(this);
}

Counter::~Counter() {
  CounterRegistry::global().remove(this);
}

std::string Counter::owner() const {
  std::lock_guard lock(CounterRegistry::global().mu_);
  return owner_;
}

void Counter::ownerIs(std::string owner) {
  std::lock_guard lock(CounterRegistry::global().mu_);
  owner_ = std::move(owner);
}

void Counter::storageIs(std::atomic<uint64_t>* storage) {
  // Under the registry's lock: a listing thread that loaded the old location must be done
  // reading it before its owner may unmap it (rebinding is rare: mounts and unmounts).
  std::lock_guard lock(CounterRegistry::global().mu_);
  if (!storage) storage = &own_;
  std::atomic<uint64_t>* old = storage_.load(std::memory_order_relaxed);
  if (old == storage) return;
  storage->store(old->load(std::memory_order_relaxed), std::memory_order_relaxed);
  // Release: a reader that sees the new location also sees the copied value.
  storage_.store(storage, std::memory_order_release);
}

CounterRegistry& CounterRegistry::global() {
  // Never destroyed: counters in static objects may outlive any ordinary static.
  static CounterRegistry* r = new CounterRegistry;
  return *r;
}

void CounterRegistry::add(Counter* c) {
  std::lock_guard lock(mu_);
  c->prev_ = tail_;
  c->next_ = nullptr;
  (tail_ ? tail_->next_ : head_) = c;
  tail_ = c;
  ++size_;
}

void CounterRegistry::remove(Counter* c) {
  std::lock_guard lock(mu_);
  (c->prev_ ? c->prev_->next_ : head_) = c->next_;
  (c->next_ ? c->next_->prev_ : tail_) = c->prev_;
  c->prev_ = c->next_ = nullptr;
  --size_;
}

std::vector<CounterSample> CounterRegistry::list() const {
  std::lock_guard lock(mu_);
  std::vector<CounterSample> out;
  out.reserve(size_);
  for (const Counter* c = head_; c; c = c->next_) {
    out.push_back(CounterSample{
        c->name_, c->owner_,
        c->storage_.load(std::memory_order_acquire)->load(std::memory_order_relaxed)});
  }
  return out;
}

uint64_t CounterRegistry::total(const std::string& name) const {
  std::lock_guard lock(mu_);
  uint64_t sum = 0;
  for (const Counter* c = head_; c; c = c->next_) {
    if (c->name_ == name) {
      sum += c->storage_.load(std::memory_order_acquire)->load(std::memory_order_relaxed);
    }
  }
  return sum;
}

size_t CounterRegistry::size() const {
  std::lock_guard lock(mu_);
  return size_;
}

void CounterRegistry::print(FILE* out) const {
  for (const CounterSample& s : list()) {
    std::string line = s.owner.empty() ? fmt::format("{} {}\n", s.name, s.value)
                                       : fmt::format("{} [{}] {}\n", s.name, s.owner, s.value);
    std::fwrite(line.data(), 1, line.size(), out);
  }
}

}  // namespace Oro
