// Tearing down a simulated switch and the DAL trees built on it frees every entity they
// made: the live count of every registered entity type returns to its value from before.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "Kel/Entity.h"
#include "Zorvek/SchanBackend.h"
#include "sim/SwitchWorkload.h"

namespace sim {
namespace {

std::map<std::string, std::int64_t> liveCounts() {
  std::map<std::string, std::int64_t> counts;
  for (const Kel::Type* t : Kel::TypeRegistry::types())
    if (t->liveCount() != 0) counts[t->name()] = t->liveCount();
  return counts;
}

TEST(SimSwitchLeakTest, TearDownFreesEveryEntity) {
  // The process's S-channel backend registry lives until exit by design; made before the
  // count, it is not mistaken for a leak.
  Zorvek::schanBackendRegistry();
  const auto before = liveCounts();
  {
    SimSwitch sw(Topology::embeddedDefault());
    Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
    EXPECT_EQ(test::exerciseSwitch(sw, *dal, 0x5A), 0u);
    dal->okToReadFromShadowIs(false);
    EXPECT_EQ(test::exerciseSwitch(sw, *dal, 0x5A), 0u);
    for (const SerializerDef& s : sw.topology().serializers) sw.restart(s.name);
    dal->waitForCompletion(DeviceId(0));
    // A second tree over the same switch, the first one dropped while its queues are served.
    dal = sw.buildDal();
    EXPECT_EQ(test::exerciseSwitch(sw, *dal, 0x5A), 0u);
    sw.restart(sw.topology().serializers.front().name);
    EXPECT_GT(Kel::TypeRegistry::liveEntities(), 0);
  }
  EXPECT_EQ(liveCounts(), before);
}

}  // namespace
}  // namespace sim
