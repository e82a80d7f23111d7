// The exit codes of zorvek-sim, and the error that stops a command before it runs anything.
//
//   0  the command did what was asked (for run: every check passed)
//   1  a check failed: the DAL was not ready, an access failed, a command was rejected, an
//      entry the agent wrote is not on the chip, or (check) the topology is not valid
//   2  bad input: a topology file that cannot be read or used, or an option that names
//      something the topology does not have
//   3  the run could not go on: a process it started, or its state database, failed
//   130  interrupted (Ctrl-C or SIGTERM); everything the run started is torn down
// Bad flags exit with CLI11's own codes.
#pragma once

#include <stdexcept>

namespace simtool {

enum ExitCode : int {
  kSuccess = 0,
  kCheckFailed = 1,
  kBadInput = 2,
  kRunFailed = 3,
  kInterrupted = 130
};

// Input that the command cannot run on; what() is the one message the user sees.
class BadInput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace simtool
