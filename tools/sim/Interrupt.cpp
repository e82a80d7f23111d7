#include "Interrupt.h"

#include <signal.h>

namespace simtool {

namespace {

volatile sig_atomic_t interruptSignal = 0;

void interrupt(int signal) { interruptSignal = signal; }

}  // namespace

InterruptCatcher::InterruptCatcher() {
  interruptSignal = 0;
  signal(SIGINT, interrupt);
  signal(SIGTERM, interrupt);
}

InterruptCatcher::~InterruptCatcher() {
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
}

void throwIfInterrupted() {
  if (interruptSignal) throw Interrupted();
}

}  // namespace simtool
