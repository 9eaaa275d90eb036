#pragma once

#include <cerrno>

/// The calls by which files are written, read and synced, as the system's own until a fault is
/// planned. Linking FaultyDisk.cc puts them in front of the system's.
namespace kyr::test::faultyDisk {

struct Plan {
  int failAt = 0;    ///< the call that fails, from 1 on; 0 for none
  int failures = 1;  ///< how many calls fail from there on
  int error = ENOSPC;
  bool shortWrites = false;  ///< writes transfer a part, the failing one as well
  bool alsoOpening = false;  ///< whether opening and closing files count, too
};

/// Counts calls from 0 and lets them fail as planned.
void start(const Plan& plan);
/// Ends the plan. \return calls counted
int stop();

}  // namespace kyr::test::faultyDisk
