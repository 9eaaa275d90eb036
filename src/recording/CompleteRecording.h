#pragma once

#include <filesystem>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// Makes a folder, in whose storage the files of \p info lie, a recording: takes the sizes and
/// checksums of the files, and puts recording.json there in one step. All of it is on disk when the
/// call returns; no file is copied.
/// \param syncsFiles  whether the files need to be synced
/// \throws std::runtime_error naming the file; recording.json is as it was then
void completeRecording(const std::filesystem::path& folder, RecordingInfo info,
                       bool syncsFiles = true);

/// Removes what lies in the folder's storage and is no file of \p info, as far as that is possible.
void removeUnnamed(const std::filesystem::path& folder, const RecordingInfo& info);

/// Removes the files of a live recording, the journal last, and syncs the folder.
void removeLiveFiles(const std::filesystem::path& folder);

}  // namespace kyr::recording
