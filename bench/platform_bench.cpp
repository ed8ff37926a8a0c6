// Cost of the hot-path platform utilities: a disabled trace point, a counter increment,
// and protobuf encoding/decoding of a two-field record.
#include <benchmark/benchmark.h>

#include "platform/Counter.h"
#include "platform/Trace.h"
#include "platform/WireBuffer.h"

namespace {

void BM_TraceDisabled(benchmark::State& state) {
  Oro::TraceHandle h("BenchDisabled");
  int key = 5;
  for (auto _ : state) {
    ORO_TRACE(h, 5, "Line 15: key {}", key);
    benchmark::DoNotOptimize(key);
  }
}
BENCHMARK(BM_TraceDisabled);

void BM_CounterInc(benchmark::State& state) {
  Oro::Counter c("benchIs");
  for (auto _ : state) {
    c.inc();
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(c.value());
}
BENCHMARK(BM_CounterInc);

void BM_PbWriteReadRecord(benchmark::State& state) {
  Oro::PbWriteBuffer w;
  uint32_t key = 0;
  for (auto _ : state) {
    w.clear();
    auto s = w.openSection();
    w.writeTag(15702, Oro::kPbVarint);
    w.writeVarint(++key);
    w.writeTag(32360, Oro::kPbVarint);
    w.writeVarint(2);
    w.closeSection(s);
    Oro::PbReadBuffer r(w.bytes());
    auto body = r.readSection(r.readVarint());
    uint64_t sum = 0;
    while (!body.atEnd()) {
      body.readTag();
      sum += body.readVarint();
    }
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_PbWriteReadRecord);

}  // namespace
