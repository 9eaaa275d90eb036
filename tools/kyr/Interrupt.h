#pragma once

#include <exception>

namespace kyr::tool {

/// The user wants the command to stop. Thrown instead of ending at once, so that temporary files
/// are removed.
class Interrupted : public std::exception {};

/// From now on the first SIGINT, SIGTERM or SIGHUP is only noted; a second one ends the process.
void noteInterrupts();

bool isInterrupted();

/// \throws Interrupted after a signal; called between the steps of long work
void stopIfInterrupted();

/// End the process by the signal that was noted, as the caller expects of an interrupted program.
[[noreturn]] void endByInterrupt();

}  // namespace kyr::tool
