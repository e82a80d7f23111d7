// An agent's DAL on the simulated switch: the switch of the embedded default topology stands
// in for the chips and the serializer agents, and the agent builds its DAL tree the way a
// hosting agent does, through its DemuxDalCreator. It writes a few entries (one through the
// S-channel, two through the serializers that own their tables), reads them back, shows what
// reached the chip, and prints the DemuxDal's state dump.
#include <cstdio>
#include <string>
#include <vector>

#include "Kel/Ptr.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/DemuxDalCreator.h"
#include "sim/SimSwitch.h"
#include "sim/Topology.h"

namespace {

using namespace Zorvek;

// Tables of the embedded default topology: l3Route has no serializer (S-channel), l2Host is
// owned by l2ser through a data mask, aclRule by aclser.
struct Table {
  const char* name;
  U64 id;
};
constexpr Table kTables[] = {{"l3Route", 0x20}, {"l2Host", 0x10}, {"aclRule", 0x30}};
constexpr DeviceId kDevice(0);
constexpr U32 kEntry = 3;

std::string hex(const U8* bytes, std::size_t n) {
  std::string out;
  char byte[4];
  for (std::size_t i = 0; i < n; ++i) {
    std::snprintf(byte, sizeof byte, "%02x", bytes[i]);
    out += byte;
  }
  return out;
}

}  // namespace

int main() {
  sim::SimSwitch sw(sim::Topology::embeddedDefault());

  // What the hosting agent does: mount the state the DAL watches, let the mounts complete,
  // ask the creator for the tree, give it the device helper and warm up the local shadows.
  const Kel::Ptr<Zorvek::DemuxDalCreator>& creator = sw.creator();
  const auto mounts = Kel::allocate<Skorra::MountGroup>(sw.database());
  creator->doMounts(mounts);
  mounts->completeMounts();
  const Kel::Ptr<Zorvek::DemuxDal> dal = creator->demuxDal();
  dal->helperIs(sw.helper());
  for (const sim::DeviceDef& device : sw.topology().devices)
    dal->initLocalCache(DeviceId(device.id), true);
  sw.serve();  // the serializers answer the DAL's first commands
  if (!dal->ready()) {
    std::fprintf(stderr, "zorvek-agent-example: the DemuxDal is not ready\n");
    return 1;
  }
  std::printf("DemuxDal ready\n");

  int failures = 0;
  for (const Table& t : kTables) {
    const PhysicalResourceId rid(ResourceType::tableResource_, t.id);
    const sim::ResourceLayout* layout = sw.chip(kDevice)->geometry()->layout(rid);
    const DeviceOffset offset = layout->entryOffset(kEntry);
    std::vector<U8> written(layout->entrySize);
    for (std::size_t i = 0; i < written.size(); ++i) written[i] = static_cast<U8>(0xa0 + i);
    std::vector<U8> read(layout->entrySize);

    sim::SimOptArg arg = sw.optArg(kDevice, offset);
    const S32 wrote = dal->dalWrite(oneDeviceMask(kDevice), offset,
                                    static_cast<U16>(written.size()), written.data(), &arg);
    sw.serve();  // the owning serializer executes the queued write
    const S32 gotRead =
        dal->dalRead(kDevice, offset, static_cast<U16>(read.size()), read.data(), &arg);
    const auto onChip = sw.chip(kDevice)->entry(rid, kEntry);
    std::printf("%-8s entry %u at 0x%x: write %d, read %d: %s, on the chip: %s\n", t.name, kEntry,
                static_cast<unsigned>(offset), wrote, gotRead,
                hex(read.data(), read.size()).c_str(), hex(onChip.data(), onChip.size()).c_str());
    if (wrote != 0 || gotRead != 0 || read != written) ++failures;
  }

  std::printf("\nstate dump:\n");
  std::fflush(stdout);  // the dump is written straight to the descriptor
  dal->showDemuxDalState(1);
  std::printf("\n");
  return failures == 0 ? 0 : 1;
}
