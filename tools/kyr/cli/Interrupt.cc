#include "cli/Interrupt.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <utility>

namespace kyr::tool {

namespace {

volatile std::sig_atomic_t notedSignal = 0;
std::atomic<const char*> unfinishedFile = nullptr;  // "" if it cannot be removed at once
static_assert(std::atomic<const char*>::is_always_lock_free, "a signal handler reads it");

void noteSignal(int signal) {
  if (notedSignal == 0) {
    notedSignal = signal;
    return;
  }
  const char* const file = unfinishedFile;
  if (file != nullptr && *file == '\0') return;
  if (file != nullptr) ::unlink(file);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

void noteInterrupts() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // A signal that the caller ignores stays ignored, as under nohup.
    if (std::signal(signal, noteSignal) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

UnfinishedOutput::UnfinishedOutput(std::string file) : file_(std::move(file)) {
  unfinishedFile = file_.c_str();
}

UnfinishedOutput::~UnfinishedOutput() { unfinishedFile = nullptr; }

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
