#pragma once

#include "kyr/platform/Path.h"
#include "kyr/recording/WorkingFolder.h"

namespace kyr::tool {

/// A new folder in the temporary folder of the system, which only this user can read. The
/// destructor removes it and everything in it. `kyr gc --stale` finds the folders of processes that
/// were killed.
class TemporaryFolder {
 public:
  Path path() const { return folder_.path(); }

 private:
  recording::WorkingFolder folder_ = recording::WorkingFolder::temporary();
};

}  // namespace kyr::tool
