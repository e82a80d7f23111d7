// Ctrl-C (SIGINT) and SIGTERM during a run: the run stops between two accesses, and
// everything it started is torn down as the Interrupted exception leaves it.
#pragma once

#include <stdexcept>

namespace simtool {

class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted") {}
};

// Catches SIGINT and SIGTERM from now on, until the object goes.
class InterruptCatcher {
 public:
  InterruptCatcher();
  ~InterruptCatcher();
  InterruptCatcher(const InterruptCatcher&) = delete;
  InterruptCatcher& operator=(const InterruptCatcher&) = delete;
};

// Throws Interrupted once SIGINT or SIGTERM arrived while a catcher was up.
void throwIfInterrupted();

}  // namespace simtool
