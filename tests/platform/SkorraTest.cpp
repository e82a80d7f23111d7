// The state database: mount requests and their completion, what the entity manager answers,
// and read-only enforcement. (Directory notifications drive the requesters' tests.)
#include <gmock/gmock.h>

#include "Kel/Dir.h"
#include "Orv/WatchList.h"
#include "Skorra/Database.h"
#include "Skorra/MountGroup.h"
#include "Skorra/ReadOnlyDir.h"

namespace {

using Skorra::Mount;
using namespace ::testing;

Kel::Ptr<Kel::Entity> newDir(const char* name) { return Kel::allocate<Kel::Dir>(Kel::Name(name)); }

class MountGroupTest : public ::testing::Test {
 protected:
  Kel::Ptr<Kel::Entity> get(const char* path) const {
    return group->entityManager()->getEntity(path);
  }
  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> group = Kel::allocate<Skorra::MountGroup>(db);
};

// What a completed mount binds (a directory created or found, an entity of another type or
// its absence) is what the creator's tests and every assembled tree rely on; here, what the
// entity manager does not answer: a request not yet completed, and paths outside the mounts.
TEST_F(MountGroupTest, EntityManagerAnswersOnlyBelowCompletedMounts) {
  db->entityIs("platform/debug/watchlist", Kel::allocate<Orv::WatchList>(Kel::Name("watchlist")));
  group->doMount(Mount("s0/config", "Kel::Dir", "wi"));
  group->doMount(Mount("platform/debug/watchlist", "Orv::WatchList", "ri"));
  EXPECT_EQ(get("s0/config"), nullptr);  // not complete yet
  group->completeMounts();
  EXPECT_NE(get("s0/config"), nullptr);
  for (const char* unmounted : {"s0", "s0/status", "platform/debug", "s0/configx", "s0/config/none",
                                "platform/debug/watchlist/below"})
    EXPECT_EQ(get(unmounted), nullptr) << unmounted;
}

// A refused request is not recorded; one that fails at completion leaves the group
// incomplete, with the earlier mounts still bound.
TEST(MountGroupBadMountTest, IsRefusedWithTheReason) {
  const auto cannot = [](const char* what) { return "Skorra: cannot mount " + std::string(what); };
  for (const auto& [mount, refusedAtRequest, message] :
       {std::tuple(Mount("x", "Kel::Dir", "rw"), true,
                   cannot("\"x\" as Kel::Dir (mode \"rw\"): unknown mode")),
        {Mount("d", "Orv::WatchList", "ri"), false,
         cannot("\"d\" as Orv::WatchList (mode \"ri\"): it holds an entity of type Kel::Dir")},
        {Mount("p/q/r", "Kel::Dir", "wi"), false,
         cannot("\"p/q/r\" as Kel::Dir (mode \"wi\"): \"p/q\" holds an entity of type "
                "Orv::WatchList, not a directory")}}) {
    auto db = Kel::allocate<Skorra::Database>();
    auto group = Kel::allocate<Skorra::MountGroup>(db);
    db->entityIs("p/q", Kel::allocate<Orv::WatchList>(Kel::Name("q")));
    db->dirIs("d");
    group->doMount(Mount("ok", "Kel::Dir", "wi"));
    group->completeMounts();
    EXPECT_THAT(
        [&] {
          group->doMount(mount);
          group->completeMounts();
        },
        ThrowsMessage<Skorra::MountError>(StrEq(message)));
    EXPECT_EQ(group->mounts().size(), refusedAtRequest ? 1u : 2u);
    EXPECT_EQ(group->mountsComplete(), refusedAtRequest);
    EXPECT_NE(group->entityManager()->getEntity("ok"), nullptr);
  }
}

// One agent writes a directory through a writable mount, another reads it read-only.
class ReadOnlyDirTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    writer->doMount(Mount("s0/config", "Kel::Dir", "wi"));
    reader->doMount(Mount("s0/config", "Kel::Dir", GetParam()));
    writer->completeMounts();
    reader->completeMounts();
    written = Kel::dynamicPtrCast<Kel::Dir>(writer->entityManager()->getEntity("s0/config"));
    read = Kel::dynamicPtrCast<Kel::Dir>(reader->entityManager()->getEntity("s0/config"));
    ASSERT_NE(read, nullptr);
  }
  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> writer = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Skorra::MountGroup> reader = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Kel::Dir> written, read;
};

// The view refuses writes, naming the path and the mode. That it follows the directory it
// views, notifications included, is how the requesters of the assembled tree see their
// serializers' status come and go.
TEST_P(ReadOnlyDirTest, RefusesWrites) {
  const std::string mode = GetParam();
  written->entityIs("sub", newDir("sub"));
  EXPECT_THAT(
      [&] { read->entityIs("q", newDir("q")); },
      ThrowsMessage<Skorra::MountError>(StrEq(
          "Skorra: cannot write \"s0/config/q\": mounted read-only (mode \"" + mode + "\")")));
  EXPECT_THROW(read->entityDel("sub"), Skorra::MountError);
  // The directories below are viewed read-only too.
  const auto sub = Kel::dynamicPtrCast<Kel::Dir>(read->entity("sub"));
  ASSERT_NE(sub, nullptr);
  EXPECT_THROW(sub->entityIs("q", newDir("q")), Skorra::MountError);
  written->entityIs("q", newDir("q"));  // the writable mount still writes
  EXPECT_NE(read->entity("q"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Modes, ReadOnlyDirTest, Values("ri", "r"));

}  // namespace
