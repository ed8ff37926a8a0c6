#include "platform/shm/ShmVerify.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/shm/ShmCollection.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

using namespace ShmLayout;

namespace {

// Whole checks repeated while a live writer keeps moving the store.
constexpr int kAttempts = 5;
// Looks at one problem again until a look is not overlapped by a writer's operation.
constexpr int kConfirmTries = 64;
// Slots whose index homes are computed (and prefetched) before any is probed.
constexpr uint32_t kBatch = 16;
// Problems listed per collection; the rest are counted in one line.
constexpr size_t kMaxListed = 32;

enum class Kind : uint8_t {
  unreadable,
  count,
  indexFull,
  entryBeyond,
  entryEmpty,
  entryStray,
  notIndexed,
  duplicate,
  orphan,
  unreached,
  chain,
  parentCount,
  blob,
  generation,
};

// A problem with what identifies it from one attempt to the next (slots, index positions, a
// count's error), which stays the same while a writer changes unrelated records.
struct Finding {
  uint32_t coll;  // kNoSlot: the whole store
  Kind kind;
  uint64_t a;
  uint64_t b;
  std::string what;
  bool same(const Finding& o) const {
    return coll == o.coll && kind == o.kind && a == o.a && b == o.b &&
           (kind != Kind::unreadable || what == o.what);
  }
};

// The writer's operation word pair as read at one instant.
struct Op {
  uint64_t seq = 0;
  uint64_t desc = 0;
  bool running() const { return (seq & 1) != 0; }
};

Op readOp(const Header* h) {
  Op op;
  for (int i = 0; i < 64; ++i) {
    op.seq = h->opSeq.load(std::memory_order_acquire);
    op.desc = h->opDesc.load(std::memory_order_acquire);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (h->opSeq.load(std::memory_order_relaxed) == op.seq) break;
  }
  return op;
}

// What moves when the writer changes anything a check reads: the change log, the operation
// word, a writer take-over, and the geometry (chunks, index generations, slots in use).
struct Stamp {
  uint64_t magic = 0;
  uint64_t epoch = 0;
  uint64_t ringHead = 0;
  uint64_t opSeq = 0;
  uint32_t blobChunks = 0;
  uint32_t chunks[kMaxCollections] = {};
  uint32_t generation[kMaxCollections] = {};
  uint32_t highWater[kMaxCollections] = {};
  bool operator==(const Stamp&) const = default;
};

Stamp stampOf(const Header* h, uint32_t collections) {
  Stamp s;
  s.magic = h->magic.load(std::memory_order_acquire);
  s.epoch = h->epoch.load(std::memory_order_acquire);
  s.ringHead = h->ringHead.load(std::memory_order_acquire);
  s.opSeq = h->opSeq.load(std::memory_order_acquire);
  s.blobChunks = h->blobChunkCount.load(std::memory_order_acquire);
  for (uint32_t c = 0; c < collections; ++c) {
    s.chunks[c] = h->colls[c].chunkCount.load(std::memory_order_acquire);
    s.generation[c] = h->colls[c].indexGeneration.load(std::memory_order_acquire);
    s.highWater[c] = h->colls[c].slotHighWater.load(std::memory_order_acquire);
  }
  return s;
}

// Index entries: slot + 1 in the low `bits` bits, a tag of the key's hash above.
bool tagMatches(uint32_t entry, uint64_t hash, uint32_t bits) {
  return ((entry ^ static_cast<uint32_t>(hash) << bits) >> bits) == 0;
}
uint32_t slotOfEntry(uint32_t entry, uint32_t bits) {
  return (entry & ((1u << bits) - 1)) - 1;
}

bool testBit(const std::vector<uint64_t>& bits, uint32_t i) {
  return i / 64 < bits.size() && (bits[i / 64] >> (i % 64) & 1) != 0;
}
void setBit(std::vector<uint64_t>& bits, uint32_t i) {
  bits[i / 64] |= uint64_t{1} << (i % 64);
}

size_t blobChunkBytes(uint32_t chunk) {
  return size_t{kBlobBaseBytes} << chunk;
}
uint32_t blobPages(uint32_t chunk) {
  return static_cast<uint32_t>(blobChunkBytes(chunk) / kBlobPageBytes);
}

// An index generation, mapped by the check itself: the collection's own view is re-mapped
// whenever the writer publishes a new generation, which would pull it away mid-walk.
struct IndexView {
  ShmSegment seg;
  const uint32_t* entries = nullptr;
  uint32_t capacity = 0;
  uint32_t slotBits = 0;
  uint32_t generation = 0;
};

class Verifier {
 public:
  explicit Verifier(const ShmStore& store) : s_(store), h_(store.header()) {
    for (uint32_t c = 0; c < s_.collections(); ++c) {
      for (uint32_t p = s_.collection(c).parent(); p != kNoParent; p = s_.collection(p).parent()) {
        ancestors_[c] |= 1u << p;
      }
    }
  }

  // One check of every collection; findings confirmed one by one in quiet moments.
  void run(std::vector<Finding>& out, size_t& records) {
    out_ = &out;
    records_ = 0;
    for (uint32_t c = 0; c < s_.collections(); ++c) {
      listed_ = 0;
      try {
        checkCollection(c);
      } catch (const ShmCorruptionException& e) {
        add(c, Kind::unreadable, 0, 0, e.what());
      }
      if (listed_ > kMaxListed) {
        add(c, Kind::unreadable, 0, 0, fmt::format("{} more problems", listed_ - kMaxListed));
      }
    }
    records = records_;
  }

 private:
  const ShmCollection& coll(uint32_t c) const { return s_.collection(c); }

  void add(uint32_t c, Kind kind, uint64_t a, uint64_t b, std::string what) {
    if (kind != Kind::unreadable && ++listed_ > kMaxListed) return;
    out_->push_back(Finding{c, kind, a, b, std::move(what)});
  }

  // Runs `bad(op)` until no writer's operation began or ended during it: its answer then holds
  // for one instant of the store (with `op` in progress, if any). No quiet moment: not a
  // problem (a damaged store stays damaged, so a later attempt sees it again).
  template <class Bad>
  bool confirmed(Bad&& bad) {
    for (int i = 0; i < kConfirmTries; ++i) {
      const Op op = readOp(h_);
      const bool result = bad(op);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (h_->opSeq.load(std::memory_order_relaxed) == op.seq) return result;
    }
    return false;
  }

  // Whether an operation in progress on an ancestor of c is removing an entity: the entity's
  // members are emptied one by one and counted when all are gone.
  bool reclaiming(uint32_t c, const Op& op) const {
    return op.running() && opKind(op.desc) == kOpRemove && opColl(op.desc) < kMaxCollections &&
           (ancestors_[c] >> opColl(op.desc) & 1) != 0;
  }
  bool opOn(uint32_t c, const Op& op) const {
    return op.running() && opColl(op.desc) == c && opKind(op.desc) != kOpRewrite;
  }
  // Whether a count word may stand for `n` records, given the operation in progress: a count
  // is updated after the slot, within the operation (tagged with it).
  bool countAgrees(uint64_t word, uint64_t n, uint32_t c, const Op& op) const {
    const uint64_t stored = countOf(word);
    if (reclaiming(c, op)) return n <= stored;
    if (!opOn(c, op)) return n == stored;
    const int64_t delta = opKind(op.desc) == kOpInsert ? 1 : -1;
    const int64_t before = static_cast<int64_t>(stored) -
                           (tagOf(word) == static_cast<uint32_t>(op.seq >> 1) ? delta : 0);
    return static_cast<int64_t>(n) == before || static_cast<int64_t>(n) == before + delta;
  }

  void checkCollection(uint32_t c) {
    const ShmCollection& cl = coll(c);
    if (cl.nested()) walkChains(c);
    const CollectionDesc& d = *cl.desc();
    const Op op1 = readOp(h_);
    const uint64_t w1 = d.count.load(std::memory_order_acquire);
    const uint64_t occupied = walkSlots(c);
    records_ += occupied;
    std::atomic_thread_fence(std::memory_order_acquire);
    const Op op2 = readOp(h_);
    const uint64_t w2 = d.count.load(std::memory_order_acquire);
    // Conclusive when no operation began or ended during the walk; else counted again.
    bool bad;
    if (op1.seq == op2.seq && w1 == w2) {
      bad = !countAgrees(w1, occupied, c, op1);
    } else {
      bad = confirmed([&](const Op& op) {
        const uint64_t w = d.count.load(std::memory_order_acquire);
        return !countAgrees(w, occupiedNow(c), c, op);
      });
    }
    if (bad) {
      const uint64_t w = d.count.load(std::memory_order_acquire);
      const uint64_t n = occupiedNow(c);
      add(c, Kind::count, countOf(w) - n, 0,
          fmt::format("count {} but {} occupied slots", countOf(w), n));
    }
    walkIndex(c);
  }

  uint64_t occupiedNow(uint32_t c) const {
    const ShmCollection& cl = coll(c);
    const uint32_t hw = cl.highWater();
    uint64_t n = 0;
    for (uint32_t slot = 0; slot < hw; ++slot) {
      n += (loadWord(cl.slotWordsAt(slot), std::memory_order_acquire) & kSeqOccupied) != 0;
    }
    return n;
  }

  // ---- slots --------------------------------------------------------------------------------

  struct Pending {
    uint32_t slot;
    uint64_t hash;
    uint32_t key[kMaxKeyBytes / 4];
  };

  uint64_t walkSlots(uint32_t c) {
    const ShmCollection& cl = coll(c);
    const uint32_t kw = cl.keyWords();
    const uint32_t rw = cl.recordWords();
    mapIndex(c);
    hw_ = cl.highWater();
    occupied_.assign((hw_ + 63) / 64, 0);
    matched_.assign((ix_.capacity + 63) / 64, 0);
    indexFull_ = false;
    uint32_t words[ShmStore::kMaxRecordWords];
    Pending batch[kBatch];
    uint32_t pending = 0;
    uint64_t occupied = 0;
    for (uint32_t slot = 0; slot < hw_; ++slot) {
      uint32_t seq;
      if (!cl.readSlot(slot, words, &seq)) continue;
      ++occupied;
      setBit(occupied_, slot);
      if (cl.desc()->children != 0) checkGeneration(c, slot);
      if (cl.nested()) checkMember(c, slot, words);
      if (cl.blobs()) {
        BlobRef ref;
        std::memcpy(&ref, words + rw - kBlobRefWords, sizeof ref);
        checkBlob(c, slot, ref);
      }
      Pending& p = batch[pending++];
      p.slot = slot;
      std::copy_n(words, kw, p.key);
      p.hash = hashWords(words, kw);
      __builtin_prefetch(ix_.entries + homeOf(p.hash, ix_.capacity));
      if (pending == kBatch) {
        for (uint32_t i = 0; i < pending; ++i) probeSlot(c, batch[i]);
        pending = 0;
      }
    }
    for (uint32_t i = 0; i < pending; ++i) probeSlot(c, batch[i]);
    return occupied;
  }

  // Where a key's probe ends: at the entry naming `slot` (found), at another occupied slot
  // holding the same key (dup), or at a free entry.
  struct ProbeEnd {
    uint32_t pos = kNoSlot;
    uint32_t dup = kNoSlot;
    bool full = false;
  };
  ProbeEnd probe(const ShmCollection& cl, const IndexView& ix, const uint32_t* key, uint64_t hash,
                 uint32_t slot, bool dupStops) const {
    ProbeEnd end;
    const uint32_t kw = cl.keyWords();
    uint32_t pos = homeOf(hash, ix.capacity);
    for (uint32_t probes = 0; probes < ix.capacity; ++probes) {
      const uint32_t e = loadWord(ix.entries + pos);
      if (e == 0) return end;
      if (e != kTombstone && tagMatches(e, hash, ix.slotBits)) {
        const uint32_t t = slotOfEntry(e, ix.slotBits);
        if (t == slot) {
          end.pos = pos;
          return end;
        }
        if (dupStops && t < cl.highWater()) {
          const uint32_t* w = cl.slotWordsAt(t);
          if ((loadWord(w, std::memory_order_acquire) & kSeqOccupied) &&
              std::equal(key, key + kw, w + 1,
                         [](uint32_t a, const uint32_t& b) { return a == loadWord(&b); })) {
            end.dup = t;
            return end;
          }
        }
      }
      if (++pos == ix.capacity) pos = 0;
    }
    end.full = true;
    return end;
  }

  void probeSlot(uint32_t c, const Pending& p) {
    const ShmCollection& cl = coll(c);
    const ProbeEnd end = probe(cl, ix_, p.key, p.hash, p.slot, true);
    if (end.pos != kNoSlot) {
      setBit(matched_, end.pos);
      return;
    }
    if (end.full && !indexFull_) {
      indexFull_ = true;
      add(c, Kind::indexFull, ix_.generation, 0,
          fmt::format("index generation {} has no free entry", ix_.generation));
    }
    const uint32_t kw = cl.keyWords();
    uint32_t words[ShmStore::kMaxRecordWords];
    if (end.dup != kNoSlot) {
      const uint32_t t = end.dup;
      const bool bad = confirmed([&](const Op&) {
        uint32_t other[ShmStore::kMaxRecordWords];
        uint32_t seq;
        return cl.readSlot(p.slot, words, &seq) && cl.readSlot(t, other, &seq) &&
               std::equal(words, words + kw, other) && std::equal(words, words + kw, p.key);
      });
      if (bad) {
        add(c, Kind::duplicate, std::min(t, p.slot), std::max(t, p.slot),
            fmt::format("slots {} and {} hold the same key", std::min(t, p.slot),
                        std::max(t, p.slot)));
      }
      return;
    }
    const bool bad = confirmed([&](const Op&) {
      uint32_t seq;
      const IndexView& ix = ix_;
      if (generationNow(c) != ix.generation || !cl.readSlot(p.slot, words, &seq) ||
          !std::equal(words, words + kw, p.key)) {
        return false;
      }
      return probe(cl, ix, p.key, p.hash, p.slot, false).pos == kNoSlot;
    });
    if (bad) {
      add(c, Kind::notIndexed, p.slot, 0,
          fmt::format("slot {} holds a key the index does not find", p.slot));
    }
  }

  // ---- index --------------------------------------------------------------------------------

  uint32_t generationNow(uint32_t c) const {
    return coll(c).desc()->indexGeneration.load(std::memory_order_acquire);
  }

  // Maps the generation the header names now (the writer may replace it meanwhile: then the
  // newer one).
  void mapIndex(uint32_t c) {
    for (int attempt = 0;; ++attempt) {
      const uint32_t gen = generationNow(c);
      try {
        ShmSegment seg = ShmSegment::open(s_.segName(fmt::format("{}i{}", c, gen)),
                                          ShmSegment::Access::readOnly, sizeof(IndexHeader));
        const auto* ih = reinterpret_cast<const IndexHeader*>(seg.data());
        if (ih->magic.load(std::memory_order_acquire) != kIndexMagic || ih->generation != gen ||
            ih->capacity < 1 || sizeof(IndexHeader) + 4ull * ih->capacity > seg.size() ||
            ih->slotBits < 1 || ih->slotBits > kMaxSlotBits) {
          s_.corrupt(fmt::format("collection {}: bad index generation {}", c, gen));
        }
        ix_.capacity = ih->capacity;
        ix_.slotBits = ih->slotBits;
        ix_.generation = gen;
        ix_.entries = reinterpret_cast<const uint32_t*>(seg.data() + sizeof(IndexHeader));
        ix_.seg = std::move(seg);
        return;
      } catch (const ShmException&) {
        if (attempt > 100 || generationNow(c) == gen) throw;
      }
    }
  }

  void walkIndex(uint32_t c) {
    const ShmCollection& cl = coll(c);
    const IndexView& ix = ix_;
    for (uint32_t pos = 0; pos < ix.capacity; ++pos) {
      const uint32_t e = loadWord(ix.entries + pos);
      if (e == 0 || e == kTombstone || testBit(matched_, pos)) continue;
      const uint32_t t = slotOfEntry(e, ix.slotBits);
      // Each look requires the entry unchanged in the same generation.
      auto same = [&] {
        return generationNow(c) == ix.generation && loadWord(ix.entries + pos) == e;
      };
      if (t >= hw_) {
        if (confirmed([&](const Op&) { return same() && t >= cl.highWater(); })) {
          add(c, Kind::entryBeyond, pos, t,
              fmt::format("index entry {} names slot {}, beyond the {} slots in use", pos, t,
                          cl.highWater()));
        }
      } else if (!testBit(occupied_, t)) {
        // An insert marks its slot occupied after indexing it, a removal unindexes it after
        // emptying it: the slot of the operation in progress may be empty but indexed.
        const bool bad = confirmed([&](const Op& op) {
          if (!same() || (loadWord(cl.slotWordsAt(t), std::memory_order_acquire) & kSeqOccupied)) {
            return false;
          }
          return !(opOn(c, op) && opSlot(op.desc) == t) && !reclaiming(c, op);
        });
        if (bad) {
          add(c, Kind::entryEmpty, pos, t,
              fmt::format("index entry {} names slot {}, which is empty", pos, t));
        }
      } else {
        // An occupied slot whose key's probe does not end at this entry: a second entry for
        // the slot, a wrong hash tag, or an entry out of its key's probe sequence.
        const bool bad = confirmed([&](const Op&) {
          uint32_t words[ShmStore::kMaxRecordWords];
          uint32_t seq;
          if (!same() || !cl.readSlot(t, words, &seq)) return false;
          const uint64_t hash = hashWords(words, cl.keyWords());
          return probe(cl, ix, words, hash, t, false).pos != pos;
        });
        if (bad) {
          add(c, Kind::entryStray, pos, t,
              fmt::format("index entry {} names slot {}, but that slot's key does not lead to it",
                          pos, t));
        }
      }
    }
  }

  // ---- nested collections -------------------------------------------------------------------

  struct Chain {
    uint64_t members = 0;
    std::string problem;  // empty: well-formed
    uint64_t at = 0;      // the page the problem was found at
  };

  // Walks the page chain of child collection c of the parent `ref`, whose child block is
  // `block`: counts its members and checks every page (range, directory entry, owner). With
  // `mark`, records each page as the parent's in pageOwner_ (a page met twice: a loop, or a
  // page in two chains).
  Chain walkChain(uint32_t c, uint64_t ref, const uint32_t* block, bool mark) {
    const ShmCollection& cl = coll(c);
    // Marks cover the slots carved when they were sized; a page carved since is looked at
    // again without marks.
    const uint32_t hw = mark ? markedHighWater_ : cl.highWater();
    const uint32_t ps = refSlot(ref);
    Chain out;
    uint32_t page = loadWord(block + kChildFirst, std::memory_order_acquire);
    for (uint64_t steps = 0; page != 0; ++steps) {
      const uint32_t first = page - 1;
      out.at = first;
      if (steps > hw / kMinPageSlots) {
        out.problem = fmt::format("the page chain of parent slot {} loops", ps);
        return out;
      }
      if (first >= hw || first % kMinPageSlots != 0) {
        out.problem = fmt::format(
            "the page chain of parent slot {} leads to slot {}, outside the "
            "{} carved slots",
            ps, first, hw);
        return out;
      }
      const PageEntry* e = cl.pageEntryAt(first);
      const uint32_t info = e->info.load(std::memory_order_acquire);
      const uint32_t cls = pageClassOf(info);
      if (cls > kMaxPageClass || headDistanceOf(info) != 0 ||
          (first - chunkFirstSlot(chunkOf(first))) % pageSlots(cls) != 0 ||
          uint64_t{first} + pageSlots(cls) > hw) {
        out.problem = fmt::format(
            "the page chain of parent slot {} leads to a bad page entry at slot {}", ps, first);
        return out;
      }
      if (e->owner.load(std::memory_order_acquire) != ref) {
        out.problem = fmt::format(
            "the page chain of parent slot {} leads to the page at slot {}, which is not its own",
            ps, first);
        return out;
      }
      const uint32_t groups = pageSlots(cls) / kMinPageSlots;
      if (mark) {
        const uint32_t seen = pageOwner_[first / kMinPageSlots];
        if (seen == ps + 1) {
          out.problem = fmt::format("the page chain of parent slot {} loops", ps);
          return out;
        }
        if (seen != 0) {
          out.problem =
              fmt::format("the page at slot {} is in the chains of parent slots {} and {}", first,
                          seen - 1, ps);
          return out;
        }
        std::fill_n(&pageOwner_[first / kMinPageSlots], groups, ps + 1);
      }
      for (uint32_t slot = first; slot < first + pageSlots(cls); ++slot) {
        const uint32_t* w = cl.slotWordsAt(slot);
        if ((loadWord(w, std::memory_order_acquire) & kSeqOccupied) && refOfWords(w + 1) == ref) {
          ++out.members;
        }
      }
      page = e->next.load(std::memory_order_acquire);
    }
    return out;
  }

  // The live parent at `ps` of collection c's parent collection: its reference and its child
  // block for c, or nullopt when the slot holds no entity.
  struct Parent {
    uint64_t ref;
    const uint32_t* block;
  };
  std::optional<Parent> parentAt(uint32_t c, uint32_t ps) const {
    const ShmCollection& cl = coll(c);
    const ShmCollection& pc = coll(cl.parent());
    if (ps >= pc.highWater()) return std::nullopt;
    const uint32_t* w = pc.slotWordsAt(ps);
    if (!(loadWord(w, std::memory_order_acquire) & kSeqOccupied)) return std::nullopt;
    const uint32_t* side = w + pc.sideWordsOffset();
    const uint64_t ref = parentRef(ps, loadWord(side + kSideGen, std::memory_order_acquire));
    return Parent{ref, side + childBlock(cl.childIndex())};
  }

  void walkChains(uint32_t c) {
    const ShmCollection& cl = coll(c);
    const ShmCollection& pc = coll(cl.parent());
    markedHighWater_ = cl.highWater();
    pageOwner_.assign(markedHighWater_ / kMinPageSlots + 1, 0);
    const uint32_t phw = pc.highWater();
    for (uint32_t ps = 0; ps < phw; ++ps) {
      const std::optional<Parent> p = parentAt(c, ps);
      if (!p) continue;
      const Op op1 = readOp(h_);
      const uint64_t w1 = loadWord64(p->block + kChildCount);
      const Chain chain = walkChain(c, p->ref, p->block, true);
      std::atomic_thread_fence(std::memory_order_acquire);
      const Op op2 = readOp(h_);
      const uint64_t w2 = loadWord64(p->block + kChildCount);
      // Looked at again (without marks): the parent may have gone meanwhile, and its pages
      // with it, or the writer may be taking an entity's members apart.
      auto again = [&](const Op& op, Chain* now) {
        const std::optional<Parent> q = parentAt(c, ps);
        if (!q || q->ref != p->ref || reclaiming(c, op)) return false;
        *now = walkChain(c, q->ref, q->block, false);
        return true;
      };
      if (!chain.problem.empty()) {
        const bool marksOnly = chain.problem.find("chains of") != std::string::npos ||
                               chain.problem.find("loops") != std::string::npos;
        Chain now;
        const bool bad = confirmed([&](const Op& op) {
          if (!again(op, &now)) return false;
          return !now.problem.empty() || (marksOnly && op.seq == op1.seq);
        });
        if (bad) {
          add(c, Kind::chain, ps, chain.at, now.problem.empty() ? chain.problem : now.problem);
        }
        continue;
      }
      bool bad;
      if (op1.seq == op2.seq && w1 == w2) {
        bad = !countAgrees(w1, chain.members, c, op1);
      } else {
        bad = confirmed([&](const Op& op) {
          Chain now;
          if (!again(op, &now) || !now.problem.empty()) return false;
          return !countAgrees(loadWord64(p->block + kChildCount), now.members, c, op);
        });
      }
      if (bad) {
        add(c, Kind::parentCount, ps, 0,
            fmt::format("parent slot {} counts {} members but its page chain holds {}", ps,
                        countOf(loadWord64(p->block + kChildCount)),
                        walkChain(c, p->ref, p->block, false).members));
      }
    }
  }

  // An entity's generation is never 0: its members could not name it.
  void checkGeneration(uint32_t c, uint32_t slot) {
    const uint32_t* w = coll(c).slotWordsAt(slot);
    const uint32_t* gen = w + coll(c).sideWordsOffset() + kSideGen;
    if (loadWord(gen, std::memory_order_acquire) != 0) return;
    const bool bad = confirmed([&](const Op& op) {
      return (loadWord(w, std::memory_order_acquire) & kSeqOccupied) &&
             loadWord(gen, std::memory_order_acquire) == 0 && !opOn(c, op);
    });
    if (bad) {
      add(c, Kind::generation, slot, 0,
          fmt::format("the entity in slot {} has generation 0, which names no entity", slot));
    }
  }

  // A member's parent reference names a live entity whose page chain holds the member.
  void checkMember(uint32_t c, uint32_t slot, const uint32_t* words) {
    const ShmCollection& cl = coll(c);
    const ShmCollection& pc = coll(cl.parent());
    const uint64_t ref = uint64_t{words[1]} << 32 | words[0];
    // The same member, still occupied, as it is now.
    auto stillThere = [&] {
      const uint32_t* w = cl.slotWordsAt(slot);
      return (loadWord(w, std::memory_order_acquire) & kSeqOccupied) && refOfWords(w + 1) == ref;
    };
    if (!pc.alive(ref)) {
      const bool bad = confirmed(
          [&](const Op& op) { return stillThere() && !pc.alive(ref) && !reclaiming(c, op); });
      if (bad) {
        add(c, Kind::orphan, slot, 0,
            fmt::format("the member in slot {} names parent slot {} generation {}, which is gone",
                        slot, refSlot(ref), refGen(ref)));
      }
      return;
    }
    const uint32_t group = slot / kMinPageSlots;
    if (group < pageOwner_.size() && pageOwner_[group] == refSlot(ref) + 1) return;
    const bool bad = confirmed([&](const Op& op) {
      const std::optional<Parent> p = parentAt(c, refSlot(ref));
      if (!stillThere() || !p || p->ref != ref || reclaiming(c, op)) return false;
      return !inChain(c, *p, slot);
    });
    if (bad) {
      add(c, Kind::unreached, slot, 0,
          fmt::format("the member in slot {} is not in the page chain of its parent slot {}", slot,
                      refSlot(ref)));
    }
  }

  bool inChain(uint32_t c, const Parent& p, uint32_t slot) const {
    const ShmCollection& cl = coll(c);
    const uint32_t hw = cl.highWater();
    uint32_t page = loadWord(p.block + kChildFirst, std::memory_order_acquire);
    for (uint64_t steps = 0; page != 0 && steps <= hw / kMinPageSlots; ++steps) {
      const uint32_t first = page - 1;
      if (first >= hw) return false;
      const PageEntry* e = cl.pageEntryAt(first);
      const uint32_t cls = pageClassOf(e->info.load(std::memory_order_acquire));
      if (cls > kMaxPageClass) return false;
      if (slot >= first && slot < first + pageSlots(cls)) return true;
      page = e->next.load(std::memory_order_acquire);
    }
    return false;
  }

  // ---- blobs --------------------------------------------------------------------------------

  // The page class table of blob chunk n, mapped on first use; null when it cannot be mapped.
  const uint8_t* blobClasses(uint32_t n) {
    while (blobChunks_.size() <= n) {
      const uint32_t k = static_cast<uint32_t>(blobChunks_.size());
      ShmSegment seg = ShmSegment::open(s_.segName(fmt::format("b{}", k)),
                                        ShmSegment::Access::readOnly, blobChunkBytes(k));
      const auto* ch = reinterpret_cast<const BlobChunkHeader*>(seg.data());
      if (ch->magic.load(std::memory_order_acquire) != kBlobMagic || ch->chunk != k ||
          ch->pages != blobPages(k)) {
        s_.corrupt(fmt::format("bad blob chunk {}", k));
      }
      blobChunks_.push_back(std::move(seg));
    }
    return reinterpret_cast<const uint8_t*>(blobChunks_[n].data() + sizeof(BlobChunkHeader));
  }

  // What is wrong with a blob reference, or empty.
  std::string blobProblem(const BlobRef& ref) {
    if (blobInline(ref)) {
      const uint32_t n = inlineBlobLength(ref);
      return n <= kInlineBlobBytes ? std::string() : fmt::format("has an inline length of {}", n);
    }
    if (ref.length == 0) return {};
    if (ref.length <= kMaxBlobBytes) return blockProblem(ref.chunk, ref.offset, ref.length);
    // A value in pieces: its index block, then each piece, a whole block of the largest class.
    if (ref.length > kMaxPiecedBytes) {
      return fmt::format("has a length of {} bytes, above the largest value", ref.length);
    }
    const uint32_t n = blobPieces(ref.length);
    if (std::string p = blockProblem(ref.chunk, ref.offset, blobBlockBytes(ref.length));
        !p.empty()) {
      return "(an index block) " + p;
    }
    const auto* index =
        reinterpret_cast<const uint32_t*>(blobChunks_[ref.chunk].data() + ref.offset);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t chunk = loadWord(index + 2 * i + 1);
      const uint32_t offset = loadWord(index + 2 * i);
      if (std::string p = blockProblem(chunk, offset, kMaxBlobBytes); !p.empty()) {
        return fmt::format("lists a piece {} (chunk {}, offset {}) that {}", i, chunk, offset, p);
      }
    }
    return {};
  }

  // What is wrong with the block at (chunk, offset) holding `length` bytes, or empty.
  std::string blockProblem(uint32_t chunk, uint32_t offset, uint32_t length) {
    const uint32_t chunks = h_->blobChunkCount.load(std::memory_order_acquire);
    if (chunk >= chunks || chunk >= kBlobMaxChunks) {
      return fmt::format("names blob chunk {} of {}", chunk, std::min(chunks, kBlobMaxChunks));
    }
    const uint32_t page = offset / kBlobPageBytes;
    if (page == 0 || page >= blobPages(chunk)) return "lies outside its chunk's pages";
    const uint8_t cls = std::atomic_ref<uint8_t>(const_cast<uint8_t&>(blobClasses(chunk)[page]))
                            .load(std::memory_order_acquire);
    if (cls == 0xFF) return "lies in an unused page";
    if (cls >= kBlobClasses) return fmt::format("lies in a page of class {}", cls);
    const uint32_t block = kBlobMinBytes << cls;
    if (offset % kBlobPageBytes % block != 0) {
      return fmt::format("is not at a block boundary of its page (blocks of {} bytes)", block);
    }
    if (length > block || (cls != 0 && length <= block / 2)) {
      return fmt::format("has a length that does not fit its page's blocks of {} bytes", block);
    }
    return {};
  }

  void checkBlob(uint32_t c, uint32_t slot, const BlobRef& ref) {
    if (blobProblem(ref).empty()) return;
    const ShmCollection& cl = coll(c);
    std::string problem;
    const bool bad = confirmed([&](const Op&) {
      uint32_t words[ShmStore::kMaxRecordWords];
      uint32_t seq;
      if (!cl.readSlot(slot, words, &seq)) return false;
      BlobRef now;
      std::memcpy(&now, words + cl.recordWords() - kBlobRefWords, sizeof now);
      if (std::memcmp(&now, &ref, sizeof ref) != 0) return false;
      problem = blobProblem(now);
      return !problem.empty();
    });
    if (bad) {
      add(c, Kind::blob, slot, 0,
          fmt::format("slot {}: blob reference (chunk {}, offset {}, length {}) {}", slot,
                      ref.chunk, ref.offset, ref.length, problem));
    }
  }

  const ShmStore& s_;
  const Header* h_;
  uint32_t ancestors_[kMaxCollections] = {};
  std::vector<Finding>* out_ = nullptr;
  size_t records_ = 0;
  size_t listed_ = 0;
  // Scratch of the collection being checked, reused from one to the next.
  IndexView ix_{};
  uint32_t hw_ = 0;
  bool indexFull_ = false;
  std::vector<uint64_t> occupied_;  // per slot
  std::vector<uint64_t> matched_;   // per index entry: the probe of its slot's key ended there
  uint32_t markedHighWater_ = 0;
  std::vector<uint32_t> pageOwner_;  // per page group: parent slot + 1 of the chain holding it
  std::vector<ShmSegment> blobChunks_;
};

void addOnce(std::vector<Finding>& to, const Finding& f) {
  for (const Finding& g : to) {
    if (g.same(f)) return;
  }
  to.push_back(f);
}

// One check of the whole store; a part that cannot be read at all is one store-wide finding.
std::vector<Finding> checkOnce(const ShmStore& store, size_t& records) {
  std::vector<Finding> found;
  Verifier v(store);
  try {
    v.run(found, records);
    store.checkIntact();
  } catch (const ShmCorruptionException& e) {
    found.push_back(Finding{kNoSlot, Kind::unreadable, 0, 0, e.what()});
  }
  return found;
}

}  // namespace

std::string shmStoreProblem(const ShmStore& store) {
  size_t records = 0;
  const std::vector<Finding> found = checkOnce(store, records);
  if (found.empty()) return {};
  const Finding& f = found.front();
  return f.coll == kNoSlot
             ? f.what
             : fmt::format("collection {}: {}", store.schema().collections[f.coll].name, f.what);
}

ShmIntegrityReport shmVerifyStore(const std::string& mountPath) {
  ShmIntegrityReport report;
  report.mountPath = mountPath;
  auto open = [&]() -> std::optional<ShmStore> {
    try {
      return ShmStore::openReader(mountPath, nullptr);
    } catch (const ShmCorruptionException& e) {
      report.problems.push_back(ShmIntegrityProblem{"", e.what()});
      return std::nullopt;
    }
  };
  std::optional<ShmStore> store = open();
  if (!store) return report;
  std::vector<Finding> previous;  // the last attempt's, while attempts keep being overlapped
  std::vector<Finding> repeated;  // seen on two consecutive overlapped attempts
  bool havePrevious = false;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const uint32_t n = store->collections();
    const Stamp before = stampOf(store->header(), n);
    size_t records = 0;
    std::vector<Finding> found = checkOnce(*store, records);
    std::atomic_thread_fence(std::memory_order_acquire);
    const Stamp after = stampOf(store->header(), n);
    if (before.magic != kMagic || after.magic != kMagic) {
      // Replaced by its writer meanwhile: the store at the path now is the one to check.
      store = open();
      if (!store) return report;
      havePrevious = false;
      continue;
    }
    report.recordsChecked = records;
    if (before == after) {
      repeated = std::move(found);
      havePrevious = false;
      report.unstable = false;
      break;
    }
    report.unstable = true;
    if (havePrevious) {
      for (const Finding& f : found) {
        for (const Finding& g : previous) {
          if (f.same(g)) addOnce(repeated, f);
        }
      }
    }
    previous = std::move(found);
    havePrevious = true;
  }
  for (const Finding& f : repeated) {
    report.problems.push_back(ShmIntegrityProblem{
        f.coll == kNoSlot ? std::string() : store->schema().collections[f.coll].name, f.what});
  }
  return report;
}

}  // namespace Oro
