// Bulk accesses of a full maxBulkTransactionSizeInBytes() routed by the DemuxDal to the
// remote DAL of a table that is not cacheable (as counter banks are: their bulk reads always
// reach the hardware), against a memcpy of that size plus one requester call. The requester
// behind the DemuxDal moves the entries between the caller's buffer (named in the optional
// argument) and the device memory, as a DMA transfer would; the baseline's requester only
// takes an index, its memcpy being the transfer.
#include "BenchSupport.h"

namespace bench {
namespace {

constexpr U32 kBulkBytes = Zorvek::maxBulkTransactionSizeInBytes();

struct BulkSetup {
  DalTree tree;
  std::vector<U8> buffer = std::vector<U8>(kBulkBytes, 5);
  sim::SimOptArg arg = tree.optArgs(kCounterTable, 1)[0];
  DeviceOffset offset = tree.offsets(kCounterTable, 1)[0];
  BulkSetup() {
    sim::SimDalHelper::bulkBufferIs(&arg, buffer.data());
    tracesOff();
  }
};

void demuxDalBulkWrite(benchmark::State& state) {
  BulkSetup s;
  const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
  for (auto _ : state) {
    const Zorvek::S32 rc =
        s.tree.demux->dalBulkWrite(mask, s.offset, kBulkBytes, s.buffer.data(), &s.arg);
    benchmark::DoNotOptimize(rc);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBulkBytes);
}

void demuxDalBulkRead(benchmark::State& state) {
  BulkSetup s;
  for (auto _ : state) {
    const Zorvek::S32 rc =
        s.tree.demux->dalBulkRead(DeviceId(0), s.offset, kBulkBytes, s.buffer.data(), &s.arg);
    benchmark::DoNotOptimize(rc);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBulkBytes);
}

void baselineBulkWrite(benchmark::State& state) {
  BulkSetup s;
  const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
  const Kel::Ptr<Zorvek::Requester> requester =
      Kel::allocate<IndexRequester>(kMyAgent, Zorvek::DalId(1));
  const auto physAddr = reinterpret_cast<PhysicalAddr>(s.buffer.data());
  for (auto _ : state) {
    std::memcpy(s.tree.dma.data(), s.buffer.data(), kBulkBytes);
    const S64 cmdIndex = requester->bulkWrite(mask, table(kCounterTable), s.offset, physAddr,
                                              nullptr, 8, kBulkBytes / 8);
    benchmark::DoNotOptimize(cmdIndex);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBulkBytes);
}

void baselineBulkRead(benchmark::State& state) {
  BulkSetup s;
  const Kel::Ptr<Zorvek::Requester> requester =
      Kel::allocate<IndexRequester>(kMyAgent, Zorvek::DalId(1));
  const auto physAddr = reinterpret_cast<PhysicalAddr>(s.buffer.data());
  for (auto _ : state) {
    std::memcpy(s.buffer.data(), s.tree.dma.data(), kBulkBytes);
    const S64 cmdIndex = requester->bulkRead(DeviceId(0), table(kCounterTable), s.offset, physAddr,
                                             8, kBulkBytes / 8);
    benchmark::DoNotOptimize(cmdIndex);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBulkBytes);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::run(argc, argv,
                    {{"BulkWrite/baseline", bench::baselineBulkWrite},
                     {"BulkWrite/demuxDal", bench::demuxDalBulkWrite},
                     {"BulkRead/baseline", bench::baselineBulkRead},
                     {"BulkRead/demuxDal", bench::demuxDalBulkRead}},
                    {{"BulkWrite/demuxDal", "BulkWrite/baseline", 1.2, 1},
                     {"BulkRead/demuxDal", "BulkRead/baseline", 1.2, 1}});
}
