// The device geometry the simulation tests share, and its layout worked out by hand:
//
//   resource        id           base  bytes  entries  entry slots
//   route #0        table 0x10      0     64  4 x 16   0..3
//   route #1        table 0x11     64     64  4 x 16   4..7
//   hashed          table 0x20    128     24  3 x 8    8..10
//   ctrl            register 0x1  152      4
//   stat            register 0x2  156      8
//   (end of the offset space: 164)
#pragma once

#include "sim/Geometry.h"

namespace sim::test {

constexpr PhysicalResourceId kRoute0{ResourceType::tableResource_, 0x10};
constexpr PhysicalResourceId kRoute1{ResourceType::tableResource_, 0x11};
constexpr PhysicalResourceId kHashed{ResourceType::tableResource_, 0x20};
constexpr PhysicalResourceId kCtrl{ResourceType::registerResource_, 0x1};
constexpr PhysicalResourceId kStat{ResourceType::registerResource_, 0x2};
constexpr DeviceOffset kRoute1Base = 64;
constexpr DeviceOffset kHashedBase = 128;
constexpr DeviceOffset kCtrlBase = 152;
constexpr DeviceOffset kStatBase = 156;
constexpr U32 kSpaceBytes = 164;

inline Kel::Ptr<Geometry> testGeometry() {
  return Kel::allocate<Geometry>(
      Kel::Name("chip"),
      std::vector<TableSpec>{{"route", 0x10, 8, 16, 4, 2, true, false},
                             {"hashed", 0x20, 4, 8, 3, 1, false, true}},
      std::vector<RegisterSpec>{{"ctrl", 0x1, 4, true}, {"stat", 0x2, 8, false}});
}

}  // namespace sim::test
