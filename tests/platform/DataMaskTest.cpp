#include <gmock/gmock.h>

#include <array>
#include <vector>

#include "Zorvek/RequesterDataMask.h"
#include "Zorvek/ResourceIdCol.h"

namespace Zorvek {
namespace {

using ::testing::ElementsAre;

TEST(RequesterDataMaskTest, SparseBytesReadAsZeroWhereAbsent) {
  RequesterDataMask mask(true);
  mask.maskByteIs(0, 0xF0);
  mask.maskByteIs(3, 0x0F);
  mask.maskByteIs(9, 0xFF);  // beyond the entry below: not copied
  std::array<U8, 8> out{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
  mask.maskBytesCopy(out.data(), out.size());
  EXPECT_THAT(out, ElementsAre(0xF0, 0, 0, 0x0F, 0, 0, 0, 0));
  EXPECT_FALSE(RequesterDataMask().flag());

  RequesterDataMask a(true);  // a zero byte is an absent byte: the masks compare equal
  a.maskByteIs(2, 0x11);
  a.maskByteIs(2, 0);
  EXPECT_TRUE(a == RequesterDataMask(true) && a != RequesterDataMask(false));
}

// The two keyed mask collections behave alike; run the same checks over both.
template <class Col>
class MaskColTest : public ::testing::Test {
 protected:
  using Key = typename Col::DataMaskMap::key_type;
  class Recorder : public Col::NotifieeConst {
   public:
    void onDataMask(const Key& id) override { calls.push_back(id.id()); }
    std::vector<U64> calls;
  };
  static Key key(U64 id) { return Key(ResourceType::tableResource_, id); }
  void SetUp() override { recorder->notifierIs(col); }
  Kel::Ptr<Col> col = Kel::allocate<Col>();
  Kel::Ptr<Recorder> recorder = Kel::allocate<Recorder>();
};

using MaskCols = ::testing::Types<ResourceIdToDataMaskMap, LogicalRemoteResourceIdCol>;
TYPED_TEST_SUITE(MaskColTest, MaskCols);

TYPED_TEST(MaskColTest, AbsentKeyReadsAsFlagFalseAndChangesNotify) {
  auto& col = *this->col;
  EXPECT_FALSE(col.dataMask(this->key(1)).flag() || col.dataMaskExists(this->key(1)));
  RequesterDataMask mask(true);
  mask.maskByteIs(1, 0xAA);
  col.dataMaskIs(this->key(1), mask);
  col.dataMaskIs(this->key(1), mask);  // unchanged: silent
  col.dataMaskIs(this->key(2), RequesterDataMask(false));
  col.dataMaskDel(this->key(3));  // absent: silent
  col.dataMaskDel(this->key(2));
  EXPECT_TRUE(col.dataMask(this->key(1)) == mask && !col.dataMaskExists(this->key(2)));
  EXPECT_THAT(this->recorder->calls, ElementsAre(1, 2, 2));
}

TEST(PhysicalResourceIdColTest, SetIteratesInIdOrderAndNotifiesChanges) {
  struct Recorder : PhysicalResourceIdCol::NotifieeConst {
    void onResourceId(const PhysicalResourceId& id) override { calls.push_back(id.id()); }
    std::vector<U64> calls;
  };
  auto col = Kel::allocate<PhysicalResourceIdCol>();
  auto recorder = Kel::allocate<Recorder>();
  recorder->notifierIs(col);
  const PhysicalResourceId reg{ResourceType::registerResource_, 1},
      t9{ResourceType::tableResource_, 9}, t2{ResourceType::tableResource_, 2};
  for (const PhysicalResourceId& id : {reg, t9, t2, t9}) col->resourceIdIs(id);  // t9 again: silent
  EXPECT_THAT(col->resourceIdCol(), ElementsAre(t2, t9, reg));
  col->resourceIdDel(t2);
  col->resourceIdDel(t2);  // absent: silent
  EXPECT_FALSE(col->resourceId(t2));
  EXPECT_THAT(recorder->calls, ElementsAre(1, 9, 2, 2));
}

}  // namespace
}  // namespace Zorvek
