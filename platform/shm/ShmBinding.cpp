#include "platform/shm/ShmBinding.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/runtime/TaskScheduler.h"

namespace Oro {

namespace {
constexpr std::chrono::milliseconds kFirstRetry{10};
constexpr std::chrono::milliseconds kMaxRetry{1000};
}  // namespace

ShmBinding::ShmBinding(ShmStoreSchema schema, Callbacks callbacks)
    : schema_(std::move(schema)),
      callbacks_(std::move(callbacks)),
      store_(ShmStore::detached(schema_)),
      top_(schema_.collections.size(), nullptr),
      nodes_(schema_.collections.size()) {}

ShmBinding::~ShmBinding() {
  *alive_ = false;
  if (retryTimer_ != 0 && scheduler_) scheduler_->timerDel(retryTimer_);
  reader_.reset();
  if (role_ == ShmRole::writer) store_.releaseOwnership();
}

void ShmBinding::assertWritable() const {
  MVPN_ASSERT_MSG(role_ != ShmRole::reader, "a reader cannot write a shared memory table");
}

void ShmBinding::topIs(uint32_t c, ShmHandleBase* handle) {
  top_.at(c) = handle;
}

void ShmBinding::nodeIs(uint32_t c, uint64_t ref, ShmNode* node) {
  nodes_.at(c)[ref] = node;
}

void ShmBinding::nodeDel(uint32_t c, uint64_t ref, ShmNode* node) {
  auto& m = nodes_.at(c);
  auto it = m.find(ref);
  if (it != m.end() && it->second == node) m.erase(it);
}

ShmNode* ShmBinding::node(uint32_t c, uint64_t ref) const {
  const auto& m = nodes_.at(c);
  auto it = m.find(ref);
  return it == m.end() ? nullptr : it->second;
}

ShmNode::~ShmNode() {
  if (binding_) binding_->nodeDel(coll_, ref_, this);
}

void ShmNode::shmReportCorruption(const std::string& message) const {
  if (binding_) binding_->handleCorruption(message);
}

void ShmNode::shmBind(ShmBinding* binding, uint32_t coll, uint64_t ref) {
  if (binding_) binding_->nodeDel(coll_, ref_, this);
  binding_ = binding;
  coll_ = coll;
  ref_ = ref;
  if (binding_) binding_->nodeIs(coll, ref, this);
  forEachChild([&](ShmHandleBase& h) { h.rebind(binding, ref); });
}

void ShmNode::shmDepart(bool storeLost) {
  if (!binding_) return;
  binding_->nodeDel(coll_, ref_, this);
  forEachChild([storeLost](ShmHandleBase& h) { h.depart(storeLost); });
  binding_ = nullptr;
}

// The entities copied into a new store answer to new references from now on.
void ShmBinding::rebindAll(const std::vector<std::tuple<uint32_t, uint64_t, uint64_t>>& moves) {
  std::vector<std::tuple<uint32_t, uint64_t, ShmNode*>> found;
  for (const auto& [c, from, to] : moves) {
    if (ShmNode* n = node(c, from)) found.emplace_back(c, to, n);
  }
  for (auto& m : nodes_) m.clear();
  for (const auto& [c, to, n] : found) n->shmBind(this, c, to);
}

void ShmBinding::attach(const ShmAttach& how) {
  // The new store is opened before the present one is left, so that a refused mount changes
  // nothing; only a writer mounting the store it writes again must leave it first (its lock).
  if (how.role == ShmRole::detached ||
      (role_ == ShmRole::writer && how.role == ShmRole::writer && how.mountPath == mountPath_)) {
    detach();
  }
  if (how.role == ShmRole::detached) return;
  if (how.role == ShmRole::writer) {
    ShmStore fresh = ShmStore::openWriter(how.mountPath, schema_, how.mode, how.ringCapacity);
    if (attached()) {
      try {
        detach();
      } catch (...) {
        fresh.releaseOwnership();
        throw;
      }
    }
    std::vector<std::tuple<uint32_t, uint64_t, uint64_t>> moves;
    try {
      fresh.copyFrom(store_, /*announce=*/true, [&](uint32_t c, uint64_t from, uint64_t to) {
        moves.emplace_back(c, from, to);
      });
    } catch (...) {
      fresh.releaseOwnership();
      throw;
    }
    store_ = std::move(fresh);
    rebindAll(moves);
    role_ = ShmRole::writer;
    mountPath_ = how.mountPath;
    // A store taken over keeps its quiesced flag: the entity's control learns it as readers do.
    const bool quiesced = store_.header()->quiesced.load(std::memory_order_relaxed) != 0;
    if (quiesced != quiesced_) {
      quiesced_ = quiesced;
      if (callbacks_.onQuiesced) callbacks_.onQuiesced(quiesced);
    }
    mountStatusIs(TylKetab::MountStatus::mounted);
    return;
  }
  ShmStore fresh = ShmStore::openReader(how.mountPath, &schema_);
  detach();
  // The records held so far are not the store's: the handles keep their keys (reported on
  // the first dispatch) and the proxies leave the store they were in.
  for (ShmHandleBase* h : top_) {
    if (h) h->forgetStore();
  }
  for (auto& m : nodes_) m.clear();
  store_ = std::move(fresh);
  role_ = ShmRole::reader;
  mountPath_ = how.mountPath;
  scheduler_ = how.scheduler;
  retry_ = std::chrono::milliseconds{0};
  gone_ = false;
  reader_ = std::make_unique<ShmReader>(static_cast<ShmReader::Sink&>(*this), store_, scheduler_);
}

void ShmBinding::detach() {
  if (!attached()) return;
  if (retryTimer_ != 0 && scheduler_) scheduler_->timerDel(retryTimer_);
  retryTimer_ = 0;
  reader_.reset();
  const bool wasWriter = role_ == ShmRole::writer;
  if (wasWriter) store_.mountStatusIs(static_cast<uint32_t>(TylKetab::MountStatus::notMounted));
  ShmStore local = ShmStore::detached(schema_);
  std::vector<std::tuple<uint32_t, uint64_t, uint64_t>> moves;
  try {
    local.copyFrom(store_, /*announce=*/false, [&](uint32_t c, uint64_t from, uint64_t to) {
      moves.emplace_back(c, from, to);
    });
  } catch (const ShmCorruptionException& e) {
    handleCorruption(e.what());
  } catch (const ShmException& e) {
    // A segment that can no longer be mapped (removed, or replaced by something that is not
    // one) is damage too; detaching runs in destructors and must not throw.
    handleCorruption(e.what());
  }
  if (wasWriter) store_.releaseOwnership();
  store_ = std::move(local);
  rebindAll(moves);
  role_ = ShmRole::detached;
  if (mountStatus_ != TylKetab::MountStatus::notMounted) {
    mountStatus_ = TylKetab::MountStatus::notMounted;
    // The path the root leaves is still there while the change is told (it is traced).
    if (callbacks_.onMountStatus) callbacks_.onMountStatus();
  }
  if (role_ == ShmRole::detached) mountPath_.clear();  // unless the callback mounted again
}

void ShmBinding::mountStatusIs(TylKetab::MountStatus status) {
  assertWritable();
  if (attached()) store_.mountStatusIs(static_cast<uint32_t>(status));
  if (status == mountStatus_) return;
  mountStatus_ = status;
  if (callbacks_.onMountStatus) callbacks_.onMountStatus();
}

void ShmBinding::quiescedIs(bool quiesced) {
  assertWritable();
  if (attached()) store_.quiescedIs(quiesced);
  if (quiesced == quiesced_) return;
  quiesced_ = quiesced;
  if (callbacks_.onQuiesced) callbacks_.onQuiesced(quiesced);
}

void ShmBinding::handleCorruption(const std::string& message) const {
  ++corruptions_;
  if (corruptionHandler_) corruptionHandler_(message);
}

// ---- reader ---------------------------------------------------------------------------------

void ShmBinding::deliverKey(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) {
  if (c >= top_.size()) return;
  ShmHandleBase* h = nullptr;
  const uint32_t parent = schema_.collections[c].parent;
  if (parent == ShmLayout::kNoParent) {
    h = top_[c];
  } else {
    // A member's change goes to its parent's proxy; none means the parent is gone (or was
    // never reported): there is nobody to tell.
    const uint64_t ref = uint64_t{keyWords[1]} << 32 | keyWords[0];
    if (ShmNode* n = node(parent, ref)) h = n->childHandle(c);
  }
  if (h) h->deliver(keyWords, slot, seq);
}

void ShmBinding::resyncKeys(ShmResync& out) {
  for (ShmHandleBase* h : top_) {
    if (h) h->resync(out);
  }
}

void ShmBinding::deliverMountStatus(uint32_t status) {
  mountStatus_ = static_cast<TylKetab::MountStatus>(status & 3);
  if (callbacks_.onMountStatus) callbacks_.onMountStatus();
}

void ShmBinding::deliverQuiesced(bool quiesced) {
  quiesced_ = quiesced;
  if (callbacks_.onQuiesced) callbacks_.onQuiesced(quiesced);
}

void ShmBinding::readerFailed(const std::string& message, bool replaced) {
  if (!replaced) handleCorruption(message);
  retryLater(replaced);
}

void ShmBinding::retryLater(bool atOnce) {
  if (!scheduler_) return;
  // Look again for a store republished by its writer: at once after a replacement, else after
  // a pause that doubles up to a second while the store stays damaged or absent.
  retry_ = atOnce ? std::chrono::milliseconds{0} : std::clamp(retry_ * 2, kFirstRetry, kMaxRetry);
  std::weak_ptr<bool> alive = alive_;
  retryTimer_ = scheduler_->timerIs(retry_, [this, alive] {
    if (auto a = alive.lock(); a && *a) {
      retryTimer_ = 0;
      retryReader();
    }
  });
}

void ShmBinding::retryReader() {
  ShmStore fresh;
  bool removed = false;
  try {
    fresh = ShmStore::openReader(mountPath_, &schema_);
  } catch (const ShmCorruptionException& e) {
    readerFailed(e.what(), /*replaced=*/false);
    return;
  } catch (const ShmReplacedException&) {
    // A header retired and not yet unlinked (a removal under way) is not damage.
    retryLater(false);
    return;
  } catch (const ShmException& e) {
    if (shmStoreExists(mountPath_)) {
      readerFailed(e.what(), /*replaced=*/false);
      return;
    }
    // The store was removed (its writer dead, see ShmStore::remove): nothing is at the path.
    // What it held is gone for this reader too: it follows an empty store of the same schema,
    // whose first dispatch reports every key it knew, until a writer creates the store again.
    retryLater(false);
    if (gone_) return;
    fresh = ShmStore::detached(schema_);
    removed = true;
  }
  gone_ = removed;
  reader_.reset();
  for (ShmHandleBase* h : top_) {
    if (h) h->forgetStore();
  }
  for (auto& m : nodes_) m.clear();
  store_ = std::move(fresh);
  reader_ = std::make_unique<ShmReader>(static_cast<ShmReader::Sink&>(*this), store_, scheduler_);
}

}  // namespace Oro
