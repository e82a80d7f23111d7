// The DAL's entity types register when the library loads, in the order of its sources.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Kel/Entity.h"

namespace {

TEST(TypeRegistrationTest, DalTypesRegisterAtLoadInSourceOrder) {
  const std::vector<std::string> expected = {"Zorvek::Dal",
                                             "Zorvek::DalHelper",
                                             "Zorvek::RequesterDal::DalReadySm",
                                             "Zorvek::RequesterDal",
                                             "Zorvek::RequesterDalSchan::CoprocessorSm",
                                             "Zorvek::RequesterDalSchan",
                                             "Zorvek::RequesterDalRemote::LocalCacheSyncSm",
                                             "Zorvek::RequesterDalRemote",
                                             "Zorvek::DemuxDal::DemuxDalReadySm",
                                             "Zorvek::DemuxDal",
                                             "Zorvek::ResourceIdToDalMap",
                                             "Zorvek::CmdIndexTuple",
                                             "Zorvek::EnqueuedCmdStatus",
                                             "Zorvek::DemuxDalCreator",
                                             "Zorvek::SerializerId",
                                             "Zorvek::SerializerInfo"};
  // Nothing in this test touches the types, so only load-time registration can put them in.
  std::vector<std::string> registered;
  for (const Kel::Type* t : Kel::TypeRegistry::types())
    if (std::ranges::count(expected, t->name())) registered.push_back(t->name());
  EXPECT_EQ(registered, expected);
}

}  // namespace
