// The cost of tracing on the access path.
//
// TraceOff: a trace point whose level is off, inside a loop that reads one entry of a local
// shadow table per iteration (the smallest piece of work of an access that carries a trace
// point), against the same loop without the trace point.
//
// KwispRecord: a ring record with the arguments of an access trace (the DAL's name, an
// offset and a size) written at an enabled ring level, against a memcpy of the bytes that
// record occupies in its slot into a preallocated buffer of the ring's size; and, for
// reference, the clock read that stamps every record, against the same memcpy.

#include "BenchSupport.h"
#include "Duwisp/Duwisp.h"
#include "Zorvek/CacheTable.h"

namespace bench {
namespace {

constexpr U32 kEntries = 1024;
constexpr U32 kEntrySize = 8;

Kel::TraceHandle& th() {
  static Kel::TraceHandle h("ZorvekBenchTrace");
  return h;
}

struct ShadowTable {
  Kel::Ptr<Zorvek::CacheTable> table = Kel::allocate<Zorvek::CacheTable>(
      kMyAgent, Zorvek::CacheTableIndex(DeviceId(0), bench::table(kRouteTable)), kEntries,
      kEntrySize);
  std::vector<DeviceOffset> offsets = std::vector<DeviceOffset>(kEntries);
  ShadowTable() {
    for (U32 i = 0; i < kEntries; ++i) {
      offsets[i] = 0x4000 + i * kEntrySize;
      table->entryIs(offsets[i], table->initialEntryData(), true);
    }
    th().levelsIs(0);
    th().ringLevelsIs(0);
  }
};

void traceOffBaseline(benchmark::State& state) {
  ShadowTable s;
  U8 out[kEntrySize];
  U32 i = 0;
  for (auto _ : state) {
    s.table->readEntryData(s.offsets[i], out, kEntrySize);
    benchmark::DoNotOptimize(out);
    i = (i + 1) % kEntries;
  }
}

void traceOffTracePoint(benchmark::State& state) {
  ShadowTable s;
  U8 out[kEntrySize];
  U32 i = 0;
  for (auto _ : state) {
    s.table->readEntryData(s.offsets[i], out, kEntrySize);
    DUWISP_TRACE(th(), 9, "readEntryData offset 0x%x size %s", s.offsets[i], kEntrySize);
    benchmark::DoNotOptimize(out);
    i = (i + 1) % kEntries;
  }
}

const std::string kDalName = "remote";
// The slot bytes of one record of the three arguments: the header, the string (tag, length,
// bytes) and two numbers (tag, 8 bytes each).
const std::size_t kRecordBytes = Kwisp::kHeaderBytes + 2 + kDalName.size() + 2 * 9;

void kwispRecord(benchmark::State& state) {
  Kwisp::clear();
  th().ringLevelsIs(1u << 5);
  U32 offset = 0;
  for (auto _ : state) {
    KWISP_TRACE(th(), 5, "maybeAllocateLocalShadowEntry %s offset 0x%x size %s", kDalName, offset,
                kEntrySize);
    offset += kEntrySize;
  }
  th().ringLevelsIs(0);
}

// For reference: the timestamp every record takes (the time-stamp counter on x86).
void kwispClockOnly(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Kwisp::clockTicks());
}

void kwispMemcpyBaseline(benchmark::State& state) {
  std::vector<U8> ring(Kwisp::slotCount() * Kwisp::kSlotBytes);
  std::vector<U8> record(kRecordBytes, 3);
  std::size_t slot = 0;
  for (auto _ : state) {
    std::memcpy(&ring[slot * Kwisp::kSlotBytes], record.data(), kRecordBytes);
    benchmark::ClobberMemory();
    slot = (slot + 1) % Kwisp::slotCount();
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::run(argc, argv,
                    {{"TraceOff/baseline", bench::traceOffBaseline},
                     {"TraceOff/tracePoint", bench::traceOffTracePoint},
                     {"KwispRecord/memcpy", bench::kwispMemcpyBaseline},
                     {"KwispRecord/record", bench::kwispRecord},
                     {"KwispRecord/clockOnly", bench::kwispClockOnly}},
                    {{"TraceOff/tracePoint", "TraceOff/baseline", 1.05, 1},
                     {"KwispRecord/record", "KwispRecord/memcpy", 3, 1},
                     {"KwispRecord/clockOnly", "KwispRecord/memcpy", 0, 1}});
}
