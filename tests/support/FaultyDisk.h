#pragma once

#include <cerrno>

/// Lets the system calls that write, read and sync files fail as planned. Linking FaultyDisk.cc
/// puts its functions before those of the system, which they call.
namespace kyr::test::faultyDisk {

struct Plan {
  int failAt = 0;    ///< number of the first call that fails, from 1 on; 0 for none
  int failures = 1;  ///< how many calls fail
  int error = ENOSPC;
  bool shortWrites = false;  ///< writes transfer only a part, also the failing one
  bool alsoOpening = false;  ///< whether opening and closing files count, too
};

/// Counts calls from 0 and lets them fail as planned.
void start(const Plan& plan);
/// Ends the plan.
/// \return the number of calls
int stop();

/// While it lives, the times of files tick as on a file system with a coarse clock.
class CoarseFileTimes {
 public:
  explicit CoarseFileTimes(long tickNanoseconds);
  ~CoarseFileTimes();
  CoarseFileTimes(const CoarseFileTimes&) = delete;
  CoarseFileTimes& operator=(const CoarseFileTimes&) = delete;
};

}  // namespace kyr::test::faultyDisk
