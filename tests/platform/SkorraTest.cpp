// The state database: directories and their notifications, paths, mount requests and
// their completion, what the entity manager answers, and read-only enforcement.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Kel/Dir.h"
#include "Orv/WatchList.h"
#include "Skorra/Database.h"
#include "Skorra/MountGroup.h"
#include "Skorra/ReadOnlyDir.h"

namespace {

using ::testing::ElementsAre;

// Records the names a directory notifies.
class DirLog : public Kel::Dir::NotifieeConst {
 public:
  void onEntity(const Kel::String& name) override { names.push_back(name); }
  std::vector<Kel::String> names;
};

Kel::Ptr<DirLog> logOf(const Kel::Ptr<const Kel::Dir>& dir) {
  auto log = Kel::allocate<DirLog>();
  log->notifierIs(dir);
  return log;
}

Kel::Ptr<Kel::Entity> newDir(const char* name) { return Kel::allocate<Kel::Dir>(Kel::Name(name)); }

TEST(DirTest, NotifiesOnlyWhenTheEntryChanges) {
  auto dir = Kel::allocate<Kel::Dir>(Kel::Name("d"));
  auto log = logOf(dir);
  const auto x = newDir("x"), y = newDir("y");
  dir->entityIs("b", x);
  dir->entityIs("b", x);  // same entity: no change
  dir->entityIs("a", y);
  dir->entityIs("b", y);
  dir->entityDel("b");
  dir->entityDel("b");  // absent: no change
  dir->entityIs("a", nullptr);
  EXPECT_THAT(log->names, ElementsAre("b", "a", "b", "b", "a"));
  EXPECT_EQ(dir->entities(), 0u);
}

TEST(DirTest, IteratesInNameOrderAndRejectsNamesThatBreakPaths) {
  auto dir = Kel::allocate<Kel::Dir>(Kel::Name("d"));
  dir->entityIs("b", newDir("b"));
  dir->entityIs("a", newDir("a"));
  std::vector<Kel::String> names;
  for (const auto& entry : *dir) names.push_back(entry.first);
  EXPECT_THAT(names, ElementsAre("a", "b"));
  EXPECT_THROW(dir->entityIs("", newDir("e")), std::invalid_argument);
  EXPECT_THROW(dir->entityIs("a/b", newDir("e")), std::invalid_argument);
  EXPECT_EQ(dir->entities(), 2u);
}

TEST(DatabaseTest, PathsSkipEmptyNamesAndStopAtNonDirectories) {
  auto db = Kel::allocate<Skorra::Database>();
  const Kel::Ptr<Kel::Dir> c = db->dirIs("a/b/c");
  EXPECT_EQ(db->entity("/a//b/c/"), c);
  EXPECT_EQ(db->entity(""), db->root());
  EXPECT_EQ(db->entity("a/x"), nullptr);

  db->entityIs("p/q", Kel::allocate<Orv::WatchList>(Kel::Name("q")));
  EXPECT_EQ(db->entity("p/q/r"), nullptr);
  try {
    db->dirIs("p/q/r");
    FAIL() << "a watch list is not a directory";
  } catch (const Skorra::PathError& e) {
    EXPECT_EQ(e.path(), "p/q");
    EXPECT_STREQ(e.what(), "\"p/q\" holds an entity of type Orv::WatchList, not a directory");
  }
  db->entityDel("a/b");
  EXPECT_EQ(db->entity("a/b/c"), nullptr);
}

class MountGroupTest : public ::testing::Test {
 protected:
  Kel::Ptr<Kel::Entity> get(const char* path) const {
    return group->entityManager()->getEntity(path);
  }
  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> group = Kel::allocate<Skorra::MountGroup>(db);
};

TEST_F(MountGroupTest, RecordsRequestsInOrderWithAnUnrestrictedFilter) {
  group->doMount(Skorra::Mount("s0/config", "Kel::Dir", "ri"));
  group->doMount(Skorra::Mount("s0/status", "Kel::Dir", "wi"));
  group->doMount(Skorra::Mount("platform/debug/watchlist", "Orv::WatchList", "ri"));
  EXPECT_THAT(group->mounts(),
              ElementsAre(Skorra::Mount("s0/config", "Kel::Dir", "ri"),
                          Skorra::Mount("s0/status", "Kel::Dir", "wi"),
                          Skorra::Mount("platform/debug/watchlist", "Orv::WatchList", "ri")));
  const Skorra::Mount& m = group->mounts().front();
  EXPECT_EQ(m.path(), "s0/config");
  EXPECT_EQ(m.typeName(), "Kel::Dir");
  EXPECT_EQ(m.mode(), "ri");
  EXPECT_EQ(m.filter(), Skorra::MountFilter(false));
  EXPECT_FALSE(group->mountsComplete());
}

TEST_F(MountGroupTest, CompletionBindsPathsThatTheEntityManagerAnswers) {
  auto watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
  db->entityIs("platform/debug/watchlist", watchList);
  group->doMount(Skorra::Mount("s0/config", "Kel::Dir", "wi"));
  group->doMount(Skorra::Mount("platform/debug/watchlist", "Orv::WatchList", "ri"));
  EXPECT_EQ(get("s0/config"), nullptr);  // not complete yet

  struct Complete : Skorra::MountGroup::NotifieeConst {
    void onMountsComplete() override { ++calls; }
    int calls = 0;
  };
  auto complete = Kel::allocate<Complete>();
  complete->notifierIs(group);
  group->completeMounts();
  EXPECT_TRUE(group->mountsComplete());
  EXPECT_EQ(complete->calls, 1);

  const Kel::Ptr<Kel::Entity> config = get("s0/config");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config, db->entity("s0/config"));  // created, and writable: the directory itself
  EXPECT_EQ(get("platform/debug/watchlist"), watchList);
  auto queue = newDir("q");
  db->entityIs("s0/config/q", queue);
  EXPECT_EQ(get("s0/config/q"), queue);
  for (const char* unmounted : {"s0", "s0/status", "platform/debug", "s0/configx"})
    EXPECT_EQ(get(unmounted), nullptr) << unmounted;
  EXPECT_EQ(get("s0/config/none"), nullptr);
  EXPECT_EQ(get("platform/debug/watchlist/below"), nullptr);
}

TEST_F(MountGroupTest, MostSpecificMountAnswersAndWritableWinsATie) {
  group->doMount(Skorra::Mount("s0", "Kel::Dir", "ri"));
  group->doMount(Skorra::Mount("s0/config", "Kel::Dir", "ri"));
  group->doMount(Skorra::Mount("s0/config", "Kel::Dir", "wi"));
  group->doMount(Skorra::Mount("s1", "Kel::Dir", "r"));  // not inclusive
  db->entityIs("s1/x", newDir("x"));
  group->completeMounts();
  EXPECT_EQ(get("s0/config"), db->entity("s0/config"));
  EXPECT_NE(Kel::dynamicPtrCast<Skorra::ReadOnlyDir>(get("s0")), nullptr);
  EXPECT_NE(get("s1"), nullptr);
  EXPECT_EQ(get("s1/x"), nullptr);
}

struct BadMount {
  const char* name;
  Skorra::Mount mount;
  bool refusedAtRequest;  // by doMount, rather than at completion
  const char* message;
};
void PrintTo(const BadMount& b, std::ostream* os) { *os << b.name; }

class MountGroupBadMountTest : public MountGroupTest,
                               public ::testing::WithParamInterface<BadMount> {};

TEST_P(MountGroupBadMountTest, IsRefusedWithTheReason) {
  db->entityIs("p/q", Kel::allocate<Orv::WatchList>(Kel::Name("q")));
  db->dirIs("d");
  group->doMount(Skorra::Mount("ok", "Kel::Dir", "wi"));
  group->completeMounts();
  try {
    group->doMount(GetParam().mount);
    group->completeMounts();
    FAIL() << "mount accepted";
  } catch (const Skorra::MountError& e) {
    EXPECT_STREQ(e.what(), GetParam().message);
    EXPECT_EQ(e.path(), GetParam().mount.path());
    EXPECT_EQ(e.mode(), GetParam().mount.mode());
  }
  // A refused request is not recorded; one that fails at completion leaves the group
  // incomplete, with the earlier mounts still bound.
  EXPECT_EQ(group->mounts().size(), GetParam().refusedAtRequest ? 1u : 2u);
  EXPECT_EQ(group->mountsComplete(), GetParam().refusedAtRequest);
  EXPECT_NE(get("ok"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, MountGroupBadMountTest,
    ::testing::Values(
        BadMount{"UnknownMode", Skorra::Mount("x", "Kel::Dir", "rw"), true,
                 "Skorra: cannot mount \"x\" as Kel::Dir (mode \"rw\"): unknown mode"},
        BadMount{"OtherType", Skorra::Mount("d", "Orv::WatchList", "ri"), false,
                 "Skorra: cannot mount \"d\" as Orv::WatchList (mode \"ri\"): it holds an entity "
                 "of type Kel::Dir"},
        BadMount{"NonDirectoryOnPath", Skorra::Mount("p/q/r", "Kel::Dir", "wi"), false,
                 "Skorra: cannot mount \"p/q/r\" as Kel::Dir (mode \"wi\"): \"p/q\" holds an "
                 "entity of type Orv::WatchList, not a directory"}),
    [](const auto& info) { return std::string(info.param.name); });

// The watch list and the coprocessor status log are optional: a mount of one that is not
// published completes, and answers null.
TEST(MountGroupOptionalTest, AbsentEntityMountsAsNull) {
  auto group = Kel::allocate<Skorra::MountGroup>(Kel::allocate<Skorra::Database>());
  group->doMount(Skorra::Mount("platform/debug/watchlist", "Orv::WatchList", "ri"));
  group->completeMounts();
  EXPECT_TRUE(group->mountsComplete());
  EXPECT_EQ(group->entityManager()->getEntity("platform/debug/watchlist"), nullptr);
}

// One agent writes a directory through a writable mount, another reads it read-only.
class ReadOnlyDirTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    writer->doMount(Skorra::Mount("s0/config", "Kel::Dir", "wi"));
    reader->doMount(Skorra::Mount("s0/config", "Kel::Dir", GetParam()));
    writer->completeMounts();
    reader->completeMounts();
    written = Kel::dynamicPtrCast<Kel::Dir>(writer->entityManager()->getEntity("s0/config"));
    read = Kel::dynamicPtrCast<Kel::Dir>(reader->entityManager()->getEntity("s0/config"));
  }
  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> writer = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Skorra::MountGroup> reader = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Kel::Dir> written, read;
};

TEST_P(ReadOnlyDirTest, WritesAreRefusedNamingThePathAndTheMode) {
  ASSERT_NE(read, nullptr);
  written->entityIs("sub", newDir("sub"));
  auto sub = Kel::dynamicPtrCast<Kel::Dir>(read->entity("sub"));
  ASSERT_NE(sub, nullptr);
  const std::string mode = GetParam();
  struct Attempt {
    Kel::Ptr<Kel::Dir> dir;
    const char* path;
  };
  for (const Attempt& a : {Attempt{read, "s0/config/q"}, Attempt{sub, "s0/config/sub/q"}}) {
    try {
      a.dir->entityIs("q", newDir("q"));
      FAIL() << "write accepted at " << a.path;
    } catch (const Skorra::MountError& e) {
      EXPECT_EQ(e.path(), a.path);
      EXPECT_EQ(e.mode(), mode);
      EXPECT_EQ(std::string(e.what()), "Skorra: cannot write \"" + std::string(a.path) +
                                           "\": mounted read-only (mode \"" + mode + "\")");
    }
    EXPECT_THROW(a.dir->entityDel("sub"), Skorra::MountError);
  }
  EXPECT_NE(written->entity("sub"), nullptr);
  written->entityIs("q", newDir("q"));  // the writable mount still writes
  EXPECT_NE(read->entity("q"), nullptr);
}

TEST_P(ReadOnlyDirTest, FollowsTheDirectoryItViews) {
  auto log = logOf(read);
  auto status = Kel::allocate<Orv::WatchList>(Kel::Name("status"));
  const Kel::Ptr<Kel::Entity> sub = newDir("sub");
  written->entityIs("status", status);
  written->entityIs("sub", sub);
  EXPECT_EQ(read->entity("status"), status);  // entities are shared as they are
  auto subView = Kel::dynamicPtrCast<Skorra::ReadOnlyDir>(read->entity("sub"));
  ASSERT_NE(subView, nullptr);
  EXPECT_EQ(subView->target(), sub);
  written->entityDel("status");
  EXPECT_EQ(read->entity("status"), nullptr);
  EXPECT_THAT(log->names, ElementsAre("status", "sub", "status"));
}

INSTANTIATE_TEST_SUITE_P(Modes, ReadOnlyDirTest, ::testing::Values("ri", "r"));

TEST(ReadOnlyDirLeakTest, ViewsGoWithTheirGroup) {
  const Kel::Type& views = Skorra::ReadOnlyDir::staticType();
  const auto before = views.liveCount();
  {
    auto db = Kel::allocate<Skorra::Database>();
    db->dirIs("a/b/c");
    auto group = Kel::allocate<Skorra::MountGroup>(db);
    group->doMount(Skorra::Mount("a", "Kel::Dir", "ri"));
    group->completeMounts();
    EXPECT_EQ(views.liveCount(), before + 3);
  }
  EXPECT_EQ(views.liveCount(), before);
}

}  // namespace
