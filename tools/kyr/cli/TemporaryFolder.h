#pragma once

#include "kyr/platform/Path.h"

namespace kyr::tool {

/// A new folder in the temporary folder of the system, which only this user can read. The
/// destructor removes it and everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const Path& path() const { return path_; }

 private:
  Path path_;
};

}  // namespace kyr::tool
