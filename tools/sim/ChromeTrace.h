// Decoded ring records as a trace-event JSON document, the format Perfetto's UI and
// chrome://tracing open.
//
// The document is {"traceEvents": [...], "displayTimeUnit": "ns"}: process 1 is the traced
// program; each trace handle is one thread of it (a track in the viewer), named by a
// "thread_name" metadata event and numbered from 1 in the order its first record comes; each
// record is an instant event on its handle's track, named by its decoded text, at its time
// in microseconds, with the text, the level, "file:line", the function, the format, the
// sequence number and the arguments under "args".
//
//   std::ofstream("trace.json") << simtool::chromeTrace(Kwisp::records());
#pragma once

#include <string>
#include <vector>

#include "Kwisp/Kwisp.h"

namespace simtool {

std::string chromeTrace(const std::vector<Kwisp::Record>& records);

}  // namespace simtool
