#include "cli/Output.h"

#include <cerrno>
#include <cstdio>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Text.h"

namespace kyr::tool {

void tell(const std::string& message) {
  std::fputs(("kyr: " + singleLine(message) + "\n").c_str(), stderr);
}

void Output::flush() {
  stopIfInterrupted();
  const std::size_t size = buffer_.size();
  const bool written =
      std::fwrite(buffer_.data(), 1, size, stdout) == size && std::fflush(stdout) == 0;
  const int error = errno;
  buffer_.clear();
  if (written) return;
  if (error == EPIPE) throw OutputClosed();
  throw systemError("standard output", "written", error);
}

}  // namespace kyr::tool
