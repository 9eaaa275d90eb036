#pragma once

#include "kyr/platform/Path.h"

namespace kyr::tool {

/// A new folder under the system's temporary one, for this user alone, removed with all that is in
/// it when the object goes.
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
