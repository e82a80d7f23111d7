// Tearing down a simulated switch and the DAL trees built on it frees every entity they
// made: the live count of every registered entity type returns to its value from before.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Kel/Entity.h"
#include "Zorvek/SchanBackend.h"
#include "sim/SimSwitch.h"

namespace sim {
namespace {

std::map<std::string, std::int64_t> liveCounts() {
  std::map<std::string, std::int64_t> counts;
  for (const Kel::Type* t : Kel::TypeRegistry::types())
    if (t->liveCount() != 0) counts[t->name()] = t->liveCount();
  return counts;
}

// Writes and reads every resource of device 0 through `dal`, single and bulk, and waits.
void exercise(SimSwitch& sw, Zorvek::DemuxDal& dal) {
  const Geometry& g = *sw.chip(DeviceId(0))->geometry();
  for (const ResourceLayout& r : g.resources()) {
    std::vector<U8> entry(r.memoryEntrySize, 0x5A), bulk(2 * r.memoryEntrySize, 0xC3);
    SimOptArg arg = sw.optArg(DeviceId(0), r.base);
    dal.dalWrite(Zorvek::oneDeviceMask(DeviceId(0)), r.base, static_cast<U16>(entry.size()),
                 entry.data(), &arg);
    dal.dalRead(DeviceId(0), r.base, static_cast<U16>(entry.size()), entry.data(), &arg);
    if (!r.isTable() || r.entryCount < 2) continue;
    SimDalHelper::bulkBufferIs(&arg, bulk.data());
    dal.dalBulkWrite(Zorvek::oneDeviceMask(DeviceId(0)), r.base, static_cast<U32>(bulk.size()),
                     bulk.data(), &arg);
    dal.dalBulkRead(DeviceId(0), r.base, static_cast<U32>(bulk.size()), bulk.data(), &arg);
    dal.waitForCompletion(DeviceId(0));
  }
}

TEST(SimSwitchLeakTest, TearDownFreesEveryEntity) {
  // The process's S-channel backend registry lives until exit by design; made before the
  // count, it is not mistaken for a leak.
  Zorvek::schanBackendRegistry();
  const auto before = liveCounts();
  {
    SimSwitch sw(Topology::embeddedDefault());
    Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
    exercise(sw, *dal);
    dal->okToReadFromShadowIs(false);
    exercise(sw, *dal);
    for (const SerializerDef& s : sw.topology().serializers) sw.restart(s.name);
    dal->waitForCompletion(DeviceId(0));
    // A second tree over the same switch, the first one dropped while its queues are served.
    dal = sw.buildDal();
    exercise(sw, *dal);
    sw.restart(sw.topology().serializers.front().name);
    EXPECT_GT(Kel::TypeRegistry::liveEntities(), 0);
  }
  EXPECT_EQ(liveCounts(), before);
}

}  // namespace
}  // namespace sim
