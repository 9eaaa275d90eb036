#pragma once

#include <exception>
#include <string>

namespace kyr::tool {

/// The user wants the command to stop. Thrown instead of ending at once, so that temporary files
/// are removed.
class Interrupted : public std::exception {};

/// From now on the first SIGINT, SIGTERM or SIGHUP is only noted; a second one ends the process,
/// but see UnfinishedOutput.
void noteInterrupts();

/// What a second signal must not leave behind. There is one object at a time.
class UnfinishedOutput {
 public:
  /// \param file  removed before a second signal ends the process; it need not exist. Empty for what
  ///         cannot be removed at once: then a second signal is ignored, and the first one's clean-up
  ///         goes on.
  explicit UnfinishedOutput(std::string file);
  ~UnfinishedOutput();
  UnfinishedOutput(const UnfinishedOutput&) = delete;
  UnfinishedOutput& operator=(const UnfinishedOutput&) = delete;

 private:
  std::string file_;
};

bool isInterrupted();

/// \throws Interrupted after a signal; called between the steps of long work
void stopIfInterrupted();

/// End the process by the signal that was noted, as the caller expects of an interrupted program.
[[noreturn]] void endByInterrupt();

}  // namespace kyr::tool
