#include "Duwisp/Duwisp.h"

namespace Duwisp::detail {

void emitValues(const Kwisp::Descriptor& d, const Kwisp::Value* values, std::size_t count) {
  const Kel::TraceHandle& h = d.handle();
  if (h.ringEnabled(d.level())) Kwisp::record(d, values, count);
  if (h.enabled(d.level()))
    Kel::traceText(h, d.level(), d.file(), d.line(), d.function(),
                   Kwisp::render(d.format(), values, count));
}

}  // namespace Duwisp::detail
