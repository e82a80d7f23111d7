#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  std::array<U8, 8> out;
  out.fill(0xEE);
  mask.maskBytesCopy(out.data(), out.size());
  EXPECT_THAT(out, ElementsAre(0xF0, 0, 0, 0x0F, 0, 0, 0, 0));
  EXPECT_EQ(mask.maskByte(1), 0);
  EXPECT_FALSE(RequesterDataMask().flag());
}

TEST(RequesterDataMaskTest, ZeroByteEqualsAbsentByte) {
  RequesterDataMask a(true), b(true);
  a.maskByteIs(2, 0x11);
  a.maskByteIs(2, 0);
  EXPECT_EQ(a, b);
  EXPECT_NE(a, RequesterDataMask(false));
}

// The two keyed mask collections behave alike; run the same checks over both.
template <class Col>
struct MaskColTraits;
template <>
struct MaskColTraits<ResourceIdToDataMaskMap> {
  static PhysicalResourceId key(U64 id) { return {ResourceType::tableResource_, id}; }
};
template <>
struct MaskColTraits<LogicalRemoteResourceIdCol> {
  static LogicalResourceId key(U64 id) { return {ResourceType::tableResource_, id}; }
};

template <class Col>
class MaskColTest : public ::testing::Test {
 protected:
  using Key = decltype(MaskColTraits<Col>::key(0));
  class Recorder : public Col::NotifieeConst {
   public:
    void onDataMask(const Key& id) override { calls.push_back(id.id()); }
    std::vector<U64> calls;
  };
  static Key key(U64 id) { return MaskColTraits<Col>::key(id); }
  Kel::Ptr<Col> col = Kel::allocate<Col>();
  Kel::Ptr<Recorder> recorder = Kel::allocate<Recorder>();
  void SetUp() override { recorder->notifierIs(col); }
};

using MaskCols = ::testing::Types<ResourceIdToDataMaskMap, LogicalRemoteResourceIdCol>;
TYPED_TEST_SUITE(MaskColTest, MaskCols);

TYPED_TEST(MaskColTest, AbsentKeyReadsAsFlagFalseAndChangesNotify) {
  auto& col = *this->col;
  EXPECT_FALSE(col.dataMask(this->key(1)).flag());
  EXPECT_FALSE(col.dataMaskExists(this->key(1)));
  RequesterDataMask mask(true);
  mask.maskByteIs(1, 0xAA);
  col.dataMaskIs(this->key(1), mask);
  col.dataMaskIs(this->key(1), mask);  // unchanged: silent
  col.dataMaskIs(this->key(2), RequesterDataMask(false));
  col.dataMaskDel(this->key(3));  // absent: silent
  col.dataMaskDel(this->key(2));
  EXPECT_EQ(col.dataMask(this->key(1)), mask);
  EXPECT_TRUE(col.dataMaskExists(this->key(1)));
  EXPECT_FALSE(col.dataMaskExists(this->key(2)));
  EXPECT_THAT(this->recorder->calls, ElementsAre(1, 2, 2));
}

class RecordingIdCol : public PhysicalResourceIdCol::NotifieeConst {
 public:
  void onResourceId(const PhysicalResourceId& id) override { calls.push_back(id.id()); }
  std::vector<U64> calls;
};

TEST(PhysicalResourceIdColTest, SetIteratesInIdOrderAndNotifiesChanges) {
  auto col = Kel::allocate<PhysicalResourceIdCol>();
  auto recorder = Kel::allocate<RecordingIdCol>();
  recorder->notifierIs(col);
  const PhysicalResourceId reg{ResourceType::registerResource_, 1};
  const PhysicalResourceId t9{ResourceType::tableResource_, 9}, t2{ResourceType::tableResource_, 2};
  col->resourceIdIs(reg);
  col->resourceIdIs(t9);
  col->resourceIdIs(t2);
  col->resourceIdIs(t9);  // present: silent
  EXPECT_THAT(col->resourceIdCol(), ElementsAre(t2, t9, reg));
  EXPECT_TRUE(col->resourceId(t2));
  col->resourceIdDel(t2);
  col->resourceIdDel(t2);  // absent: silent
  EXPECT_FALSE(col->resourceId(t2));
  EXPECT_THAT(recorder->calls, ElementsAre(1, 9, 2, 2));
  recorder->notifierIs(nullptr);
  col->resourceIdDel(reg);
  EXPECT_EQ(recorder->calls.size(), 4u);
}

}  // namespace
}  // namespace Zorvek
