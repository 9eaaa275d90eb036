#include "cli/Output.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Text.h"

namespace kyr::tool {

void tell(const std::string& message) {
  std::fputs(("kyr: " + singleLine(message) + "\n").c_str(), stderr);
}

void tellNotes(const std::vector<std::string>& notes, bool isQuiet) {
  for (const std::string& note : notes) {
    if (!isQuiet || note.rfind("warning", 0) == 0) tell(note);
  }
}

bool isOutputGone(int error) {
  if (error != EIO) return error == EPIPE;
  struct stat status {};
  return ::fstat(STDOUT_FILENO, &status) == 0 && S_ISCHR(status.st_mode);
}

bool isTerminal() {
  static const bool isIt = ::isatty(STDOUT_FILENO) != 0;
  return isIt;
}

std::size_t terminalWidth() {
  winsize size{};
  if (!isTerminal() || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

void Output::flush() {
  stopIfInterrupted();
  const std::size_t size = buffer_.size();
  const bool written =
      std::fwrite(buffer_.data(), 1, size, stdout) == size && std::fflush(stdout) == 0;
  const int error = errno;
  buffer_.clear();
  if (written) return;
  if (isOutputGone(error)) throw OutputClosed();
  throw systemError("standard output", "written", error);
}

}  // namespace kyr::tool
