// Writes a real dump of a small Kwisp trace ring, the seed of the ring decoder's fuzz
// corpus: a simulated switch builds its DAL, makes a few accesses and restarts a serializer
// with every ring level on, on a ring of a few slots so that it wraps.
//
//   KwispRingSeed fuzz/corpus/KwispRingFuzz/ring.dump
#include <cstdio>
#include <vector>

#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "sim/SimSwitch.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <dump file>\n", argv[0]);
    return 2;
  }
  Kel::ringLevelsIs("*/0-9");
  Kwisp::clear(12);
  sim::SimSwitch sw(sim::Topology::embeddedDefault());
  const Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
  const Zorvek::DeviceId dev(0);
  for (const sim::ResourceLayout& r : sw.chip(dev)->geometry()->resources()) {
    std::vector<Zorvek::U8> entry(r.memoryEntrySize, 0x42);
    sim::SimOptArg arg = sw.optArg(dev, r.base);
    dal->dalWrite(Zorvek::oneDeviceMask(dev), r.base, static_cast<Zorvek::U16>(entry.size()),
                  entry.data(), &arg);
  }
  sw.restart(sw.topology().serializers.front().name);
  dal->waitForCompletion(dev);
  Kwisp::dump(argv[1]);
  return 0;
}
