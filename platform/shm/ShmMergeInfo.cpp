#include "platform/shm/ShmMergeInfo.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "platform/shm/ShmStore.h"

namespace Oro {

using namespace ShmLayout;

namespace {

// Texts are stored a word at a time (a reader in another process may copy them meanwhile; the
// sequence word tells it whether its copy is whole). `bytes` is a multiple of 4.
void storeText(char* dst, size_t bytes, std::string_view text) {
  std::vector<char> buf(bytes, '\0');
  std::memcpy(buf.data(), text.data(), std::min(text.size(), bytes - 1));
  auto* words = reinterpret_cast<uint32_t*>(dst);
  for (size_t i = 0; i < bytes / 4; ++i) {
    uint32_t w;
    std::memcpy(&w, buf.data() + 4 * i, 4);
    storeWord(words + i, w);
  }
}

std::string loadText(const char* src, size_t bytes) {
  std::vector<char> buf(bytes);
  const auto* words = reinterpret_cast<const uint32_t*>(src);
  for (size_t i = 0; i < bytes / 4; ++i) {
    const uint32_t w = loadWord(words + i);
    std::memcpy(buf.data() + 4 * i, &w, 4);
  }
  return std::string(buf.data(), strnlen(buf.data(), bytes));
}

ShmMergeProgress loadProgress(const MergeProgressCell& c) {
  return ShmMergeProgress{c.done.load(std::memory_order_relaxed),
                          c.total.load(std::memory_order_relaxed),
                          c.deleted.load(std::memory_order_relaxed)};
}

// The description, copied under its sequence word; false when it never was written or a
// writer kept rewriting it.
bool loadDescription(const MergeInfo& m, ShmMergeDescription& d, uint64_t& epoch) {
  auto* mm = const_cast<MergeInfo*>(&m);  // only read: the counts are plain words
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const uint32_t s1 = m.seq.load(std::memory_order_acquire);
    if (s1 == 0) return false;
    if (s1 & 1) continue;
    const uint32_t inputs = std::min(loadWord(&mm->inputs), kMergeInputs);
    const uint32_t streams = std::min(loadWord(&mm->streams), kMergeStreams);
    const uint32_t outputs = std::min(loadWord(&mm->outputs), kMergeOutputs);
    d = ShmMergeDescription{};
    d.machineType = loadText(m.machineType, sizeof m.machineType);
    d.rule = loadText(m.rule, sizeof m.rule);
    for (uint32_t i = 0; i < inputs; ++i) {
      d.inputs.push_back(ShmMergeInput{loadText(m.input[i].name, kMergeNameBytes),
                                       loadText(m.input[i].path, kPathBytes)});
    }
    for (uint32_t s = 0; s < streams; ++s) {
      const uint32_t w = loadWord(reinterpret_cast<const uint32_t*>(m.streamInput) + s / 4);
      d.streamInput.push_back(static_cast<uint8_t>(w >> (8 * (s % 4))));
    }
    for (uint32_t o = 0; o < outputs; ++o) {
      d.outputs.push_back(loadText(m.outputName[o], kMergeNameBytes));
    }
    epoch = m.epoch.load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (m.seq.load(std::memory_order_relaxed) == s1) return true;
  }
  return false;
}

}  // namespace

std::string shmShortCount(uint64_t n) {
  if (n < 10'000) return std::to_string(n);
  if (n < 1'000'000) return fmt::format("{}k", n / 1000);
  if (n < 10'000'000) return fmt::format("{}.{}M", n / 1'000'000, n / 100'000 % 10);
  return fmt::format("{}M", n / 1'000'000);
}

std::string_view ShmMergeState::phase() const {
  if (!running || (bits & kMergeStopped)) return "not running";
  if (!initialized()) return "starting";
  if (!initialScanDone()) return "initial scan";
  if (ready()) return "ready";
  for (uint32_t s = 0; s < streams.size(); ++s) {
    if (!streamScanned(s) || streamDamaged(s)) return "scanning";
  }
  return "reconciling";
}

std::string ShmMergeState::phaseText() const {
  const std::string_view p = phase();
  ShmMergeProgress sum;
  if (p == "initial scan" || p == "scanning") {
    for (const ShmMergeProgress& s : streams) {
      sum.done += s.done;
      sum.total += s.total;
    }
    std::string text = fmt::format("{} {}/{}", p, shmShortCount(sum.done),
                                   shmShortCount(std::max(sum.done, sum.total)));
    for (uint32_t s = 0; s < streams.size(); ++s) {
      if (!streamDamaged(s)) continue;
      const uint8_t in = s < desc.streamInput.size() ? desc.streamInput[s] : 0xFF;
      text += fmt::format(", input {} damaged",
                          in < desc.inputs.size() ? desc.inputs[in].name : std::to_string(s));
    }
    return text;
  }
  if (p == "reconciling") {
    for (const ShmMergeProgress& o : outputs) {
      sum.done += o.done;
      sum.total += o.total;
      sum.deleted += o.deleted;
    }
    return fmt::format("{} {}/{}, {} deleted", p, shmShortCount(sum.done),
                       shmShortCount(std::max(sum.done, sum.total)), sum.deleted);
  }
  return std::string(p);
}

std::optional<ShmMergeState> shmReadMergeState(const Header& h, bool writerAlive) {
  ShmMergeState st;
  uint64_t epoch = 0;
  if (!loadDescription(h.merge, st.desc, epoch)) return std::nullopt;
  st.running = writerAlive && epoch == h.epoch.load(std::memory_order_acquire);
  st.bits = h.merge.state.load(std::memory_order_acquire);
  for (uint32_t s = 0; s < st.desc.streamInput.size(); ++s) {
    st.streams.push_back(loadProgress(h.merge.stream[s]));
  }
  for (uint32_t o = 0; o < st.desc.outputs.size(); ++o) {
    st.outputs.push_back(loadProgress(h.merge.output[o]));
  }
  return st;
}

MergeInfo* ShmMergeRecorder::record(ShmStore& store) {
  MergeInfo* m = store.mergeInfo();
  if (!m) return nullptr;
  const uint64_t epoch = store.epoch();
  const uint32_t seq = m->seq.load(std::memory_order_relaxed);
  if (seq != 0 && (seq & 1) == 0 && m->epoch.load(std::memory_order_relaxed) == epoch) return m;
  // A record of another epoch (or none): this merger's own, from a clean state.
  m->seq.store(seq | 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  const auto inputs = static_cast<uint32_t>(std::min<size_t>(desc_.inputs.size(), kMergeInputs));
  const auto streams =
      static_cast<uint32_t>(std::min<size_t>(desc_.streamInput.size(), kMergeStreams));
  const auto outputs = static_cast<uint32_t>(std::min<size_t>(desc_.outputs.size(), kMergeOutputs));
  storeWord(&m->inputs, inputs);
  storeWord(&m->streams, streams);
  storeWord(&m->outputs, outputs);
  storeText(m->machineType, sizeof m->machineType, desc_.machineType);
  storeText(m->rule, sizeof m->rule, desc_.rule);
  uint32_t streamWords[kMergeStreams / 4] = {};
  for (uint32_t s = 0; s < streams; ++s)
    streamWords[s / 4] |= uint32_t{desc_.streamInput[s]} << (8 * (s % 4));
  for (uint32_t i = 0; i < kMergeStreams / 4; ++i) {
    storeWord(reinterpret_cast<uint32_t*>(m->streamInput) + i, streamWords[i]);
  }
  for (uint32_t i = 0; i < kMergeInputs; ++i) {
    storeText(m->input[i].name, kMergeNameBytes, i < inputs ? desc_.inputs[i].name : "");
    storeText(m->input[i].path, kPathBytes, i < inputs ? desc_.inputs[i].path : "");
  }
  for (uint32_t o = 0; o < kMergeOutputs; ++o) {
    storeText(m->outputName[o], kMergeNameBytes, o < outputs ? desc_.outputs[o] : "");
  }
  m->epoch.store(epoch, std::memory_order_relaxed);
  m->state.store(bits_, std::memory_order_relaxed);
  for (MergeProgressCell& c : m->stream) c.done = c.total = c.deleted = 0;
  for (MergeProgressCell& c : m->output) c.done = c.total = c.deleted = 0;
  m->seq.store((seq | 1) + 1, std::memory_order_release);
  store.publishControl();  // readers see a new record, whatever state it starts in
  return m;
}

void ShmMergeRecorder::stateIs(ShmStore& store, uint32_t bits) {
  bits_ = bits;
  MergeInfo* m = record(store);
  if (m && m->state.exchange(bits, std::memory_order_release) != bits) store.publishControl();
}

void ShmMergeRecorder::streamProgressIs(ShmStore& store, uint32_t stream, uint64_t done,
                                        uint64_t total) {
  MergeInfo* m = record(store);
  if (!m || stream >= kMergeStreams) return;
  m->stream[stream].done.store(done, std::memory_order_relaxed);
  m->stream[stream].total.store(total, std::memory_order_relaxed);
}

void ShmMergeRecorder::outputProgressIs(ShmStore& store, uint32_t output,
                                        const ShmMergeProgress& p) {
  MergeInfo* m = record(store);
  if (!m || output >= kMergeOutputs) return;
  m->output[output].done.store(p.done, std::memory_order_relaxed);
  m->output[output].total.store(p.total, std::memory_order_relaxed);
  m->output[output].deleted.store(p.deleted, std::memory_order_relaxed);
}

}  // namespace Oro
