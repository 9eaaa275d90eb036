#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <utility>

#include "kyr/recording/RecordingInfo.h"
#include "recording/LockedFolder.h"
#include "recording/ReplaceFolder.h"

namespace kyr::recording {

using FileId = std::pair<std::uint64_t, std::uint64_t>;  ///< device and inode

/// An older recording that another one has replaced.
struct ReplacedRecording {
  std::filesystem::path folder;  ///< where it is now; empty if there was none
  std::set<FileId> linked;       ///< files of others that are in the newer one, too
};

/// Completes a new recording, whose storage folder is there, and puts it in the place of an older
/// one or an empty folder, in one step. Entries of the older folder that are not the recording's
/// get into the new one.
/// \param info  what recording.json is to say, in the newest version
/// \return for disposeOf()
/// \throws std::exception naming the file or folder; the target is as it was then
ReplacedRecording publishRecording(LockedFolder& fresh, RecordingInfo info,
                                   const std::filesystem::path& target,
                                   const ReplaceOptions& options);

/// Removes an older recording, if there was one. Entries that are not its own move to the new one,
/// unless that has them, or newer ones of the same names.
void disposeOf(const ReplacedRecording& old, const std::filesystem::path& folder);

}  // namespace kyr::recording
