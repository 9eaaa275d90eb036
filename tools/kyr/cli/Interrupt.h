#pragma once

#include <exception>
#include <string>

namespace kyr::tool {

/// The user wants the command to stop. It is thrown, so that temporary files are removed before the
/// process ends.
class Interrupted : public std::exception {};

/// From now on the first SIGINT, SIGTERM or SIGHUP is only noted. A second one ends the process;
/// see also UnfinishedOutput.
void noteInterrupts();

/// Output that a second signal must not leave behind. Only one object may exist at a time.
class UnfinishedOutput {
 public:
  /// \param file  removed before a second signal ends the process; it need not exist. Empty for
  ///         output that cannot be removed at once. Then a second signal is ignored, and the
  ///         clean-up after the first one goes on.
  explicit UnfinishedOutput(std::string file);
  ~UnfinishedOutput();
  UnfinishedOutput(const UnfinishedOutput&) = delete;
  UnfinishedOutput& operator=(const UnfinishedOutput&) = delete;

 private:
  std::string file_;
};

bool isInterrupted();

/// To be called between the steps of long work.
/// \throws Interrupted after a signal
void stopIfInterrupted();

/// Ends the process by the signal that was noted, as callers expect of an interrupted program.
[[noreturn]] void endByInterrupt();

}  // namespace kyr::tool
