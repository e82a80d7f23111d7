// The DAL's entity types register when the library loads, in the order of its sources.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kel/Entity.h"

namespace {

TEST(TypeRegistrationTest, DalTypesRegisterAtLoadInSourceOrder) {
  const std::vector<std::string> expected = {
      "Zorvek::Dal",
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
      "Zorvek::SerializerInfo",
  };
  // Nothing in this test touches the types, so only load-time registration can put them in.
  std::vector<std::string> registered;
  for (const Kel::Type* t : Kel::TypeRegistry::types())
    if (t->name().rfind("Zorvek::", 0) == 0) registered.push_back(t->name());
  std::vector<std::string> dalOnly;
  for (const std::string& name : registered)
    for (const std::string& e : expected)
      if (name == e) dalOnly.push_back(name);
  EXPECT_EQ(dalOnly, expected);
}

}  // namespace
