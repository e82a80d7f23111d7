// The DemuxDal's state dump, taken and laid out for a reader.
//
// showDemuxDalState writes the body of a dictionary literal ("'key': value," with nested
// braces, True/False) to a file descriptor, all on one line. formatDump puts one key per
// line and indents each nested group, changing only whitespace outside quoted text, so
// the laid-out dump still reads back as the same dictionary body.
//
//   std::cout << simtool::formatDump(simtool::stateDump(*demuxDal));
#pragma once

#include <string>
#include <string_view>

#include "Zorvek/DemuxDal.h"

namespace simtool {

// Everything showDemuxDalState writes. Throws std::runtime_error when no temporary file can
// be made to take it.
std::string stateDump(Zorvek::DemuxDal& dal);

// The dump laid out: a new line after every opening brace and every comma between members,
// closing braces on their own line at the indentation of their opening line, two spaces per
// level. Text inside quotes and inside parentheses (a value written as a call, such as
// "Value('Zorvek::CmdIndexTuple', ** {...})") is kept as written; an empty group stays "{}".
std::string formatDump(std::string_view dump);

}  // namespace simtool
