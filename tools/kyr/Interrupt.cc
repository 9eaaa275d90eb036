#include "Interrupt.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace kyr::tool {

namespace {

volatile std::sig_atomic_t notedSignal = 0;

void noteSignal(int signal) {
  notedSignal = signal;
  std::signal(signal, SIG_DFL);
}

}  // namespace

void noteInterrupts() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // A signal that is ignored, as under nohup, stays so.
    if (std::signal(signal, noteSignal) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

bool isInterrupted() { return notedSignal != 0; }

void stopIfInterrupted() {
  if (isInterrupted()) throw Interrupted();
}

void endByInterrupt() {
  const int signal = notedSignal;
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  std::abort();
}

}  // namespace kyr::tool
