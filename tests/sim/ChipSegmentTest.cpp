// The chips in shared memory, between real processes: what one process writes, wipes or
// leaves behind when it is killed, another reads; a segment that does not fit the topology is
// refused naming what differs.
#include "sim/ChipSegment.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>

#include <optional>
#include <string>

#include "platform/ForkTools.h"

namespace sim {
namespace {

using namespace ::testing;
using Zorvek::test::Child;
using Zorvek::test::Shared;

const PhysicalResourceId kL2Host(ResourceType::tableResource_, 16);
const PhysicalResourceId kVlan(ResourceType::tableResource_, 64);
constexpr AgentId kAgent = 5;

std::string segmentName(const char* what) {
  return "/zorvek-test-" + std::to_string(getpid()) + "-" + what;
}

// The exit code of a child that opens the segment and runs `body` on its chip of device 0.
int inChild(const std::string& name, const std::function<bool(SimChip&)>& body) {
  Child child([&] {
    const ChipSegment mapped = ChipSegment::open(name, Topology::embeddedDefault());
    return body(*mapped.chips()->chip(DeviceId(0))) ? 0 : 1;
  });
  return WEXITSTATUS(child.exitStatus());
}

TEST(ChipSegmentTest, WhatOneProcessWritesOrWipesAnotherReads) {
  const ChipSegment segment =
      ChipSegment::create(segmentName("share"), Topology::embeddedDefault());
  SimChip& chip = *segment.chips()->chip(DeviceId(0));
  const DeviceOffset l2 = chip.geometry()->layout(kL2Host)->entryOffset(3);
  const DeviceOffset vlan = chip.geometry()->layout(kVlan)->entryOffset(0);
  chip.writeAt(vlan, std::vector<U8>(8, 0x77).data(), nullptr, 8, kAgent);

  // A masked write in a child: the bytes outside the mask stay as this process left them.
  chip.writeAt(l2, std::vector<U8>(16, 0x0F).data(), nullptr, 16, kAgent);
  EXPECT_EQ(inChild(segment.name(),
                    [&](SimChip& c) {
                      const std::vector<U8> data(16, 0xF0), mask(16, 0xC0);
                      return c.writeAt(l2, data.data(), mask.data(), 16, kAgent + 1) == 0;
                    }),
            0);
  EXPECT_THAT(chip.entry(kL2Host, 3), Each(0xCF));
  EXPECT_EQ(chip.owner(kL2Host, 3), kAgent + 1);

  // A child wipes one table: the other keeps its bytes and owner.
  EXPECT_EQ(inChild(segment.name(), [](SimChip& c) { return c.tableWipe(kL2Host) == 0; }), 0);
  EXPECT_THAT(chip.entry(kL2Host, 3), Each(0));
  EXPECT_EQ(chip.owner(kL2Host, 3), Zorvek::kInvalidAgentId);
  EXPECT_THAT(chip.entry(kVlan, 0), Each(0x77));
  EXPECT_EQ(chip.owner(kVlan, 0), kAgent);
}

TEST(ChipSegmentTest, OutlivesAProcessKilledWhileItUsedIt) {
  const std::string name = segmentName("killed");
  const ChipSegment segment = ChipSegment::create(name, Topology::embeddedDefault());
  Shared<std::atomic<bool>> written;
  Child child([&] {
    const ChipSegment mapped = ChipSegment::open(name, Topology::embeddedDefault());
    SimChip& c = *mapped.chips()->chip(DeviceId(0));
    c.writeAt(c.geometry()->layout(kVlan)->entryOffset(1), std::vector<U8>(8, 0x5A).data(), nullptr,
              8, kAgent);
    *written = true;
    for (;;) pause();
    return 0;
  });
  Zorvek::test::spinUntil([&] { return written->load(); });
  child.kill(SIGKILL);
  const ChipSegment reopened = ChipSegment::open(name, Topology::embeddedDefault());
  EXPECT_THAT(reopened.chips()->chip(DeviceId(0))->entry(kVlan, 1), Each(0x5A));
}

TEST(ChipSegmentTest, TheCreatorUnlinksTheNameAndReplacesALeftover) {
  const std::string name = segmentName("owner");
  {
    const ChipSegment leftover = ChipSegment::create(name, Topology::embeddedDefault());
    leftover.chips()
        ->chip(DeviceId(0))
        ->writeAt(0, std::vector<U8>(4, 9).data(), nullptr, 4, kAgent);
    const ChipSegment again = ChipSegment::create(name, Topology::embeddedDefault());
    EXPECT_THAT(again.chips()
                    ->chip(DeviceId(0))
                    ->entry(PhysicalResourceId(ResourceType::registerResource_, 1), 0),
                Each(0));
  }
  errno = 0;
  EXPECT_EQ(shm_open(name.c_str(), O_RDONLY, 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

// A topology whose device 0 has one table more, or with a third device.
Topology withExtraTable() {
  Topology t = Topology::embeddedDefault();
  TableDef extra = t.devices[0].tables.back();
  extra.name = "extra";
  extra.id = 240;
  t.devices[0].tables.push_back(extra);
  return t;
}
Topology withExtraDevice() {
  Topology t = Topology::embeddedDefault();
  t.devices.push_back(t.devices.back());
  t.devices.back().id = 7;
  return t;
}

struct OpenCase {
  const char* name;
  // Leaves something at the segment's name (or nothing); a segment returned stays while the
  // case opens the name.
  std::optional<ChipSegment> (*make)(const std::string& name);
  Topology (*topology)();
  const char* error;
};

std::optional<ChipSegment> nothing(const std::string&) { return std::nullopt; }
std::optional<ChipSegment> embedded(const std::string& name) {
  return ChipSegment::create(name, Topology::embeddedDefault());
}

const OpenCase kOpenCases[] = {
    {"Missing", nothing, Topology::embeddedDefault, "shm_open failed: No such file or directory"},
    {"NotAChipSegment",
     [](const std::string& name) -> std::optional<ChipSegment> {
       const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
       EXPECT_EQ(ftruncate(fd, 4096), 0);
       close(fd);
       return std::nullopt;
     },
     Topology::embeddedDefault, "not a chip segment (bad magic)"},
    {"AnotherDeviceCount", embedded, withExtraDevice, "laid out for 2 devices, the topology has 3"},
    {"AnotherMemorySize", embedded, withExtraTable, "device 0 has "},
};

class ChipSegmentOpenTest : public TestWithParam<OpenCase> {};

TEST_P(ChipSegmentOpenTest, ASegmentThatDoesNotFitIsAClearError) {
  const std::string name = segmentName(GetParam().name);
  const std::optional<ChipSegment> made = GetParam().make(name);
  EXPECT_THAT([&] { ChipSegment::open(name, GetParam().topology()); },
              ThrowsMessage<ChipSegmentError>(
                  StartsWith("ChipSegment: segment \"" + name + "\": " + GetParam().error)));
  shm_unlink(name.c_str());
}

INSTANTIATE_TEST_SUITE_P(Cases, ChipSegmentOpenTest, ValuesIn(kOpenCases),
                         [](const TestParamInfo<OpenCase>& info) { return info.param.name; });

}  // namespace
}  // namespace sim
