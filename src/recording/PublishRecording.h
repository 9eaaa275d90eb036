#pragma once

#include <filesystem>

#include "kyr/recording/RecordingInfo.h"
#include "recording/LockedFolder.h"
#include "recording/ReplaceFolder.h"

namespace kyr::recording {

/// Completes a new recording, whose storage folder is there, and puts it in the place of an older
/// one or an empty folder, in one step. Entries of the older folder that are not the recording's
/// get into the new one.
/// \param info  what recording.json is to say, in the newest version
/// \return where the older recording is now, for disposeOf(); empty if there was none
/// \throws std::exception naming the file or folder; the target is as it was then
std::filesystem::path publishRecording(LockedFolder& fresh, RecordingInfo info,
                                       const std::filesystem::path& target,
                                       const ReplaceOptions& options);

/// Removes an older recording that another one has replaced, and moves entries that are not its own
/// to the new one.
void disposeOf(const std::filesystem::path& old, const std::filesystem::path& folder);

}  // namespace kyr::recording
