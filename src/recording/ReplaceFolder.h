#pragma once

#include <filesystem>

#include "recording/LockedFolder.h"

namespace kyr::recording {

struct ReplaceOptions {
  bool replaces = true;  ///< whether a folder with content is replaced
  bool sync = true;      ///< whether the change is on the disk when the call returns
};

/// Puts \p fresh in the place of \p target in one step. The target is missing, an empty folder, or
/// an older folder.
///
/// \return where the older folder is now; empty if there was none with content
/// \throws std::runtime_error naming the folder and the reason; the target is then as it was, and
///         \p fresh has its own name
std::filesystem::path replaceFolder(LockedFolder& fresh, const std::filesystem::path& target,
                                    const ReplaceOptions& options);

}  // namespace kyr::recording
