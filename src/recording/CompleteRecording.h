#pragma once

#include <filesystem>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// Make the folder, in whose storage the files of \p info lie, a recording: sync the files, take
/// their sizes and checksums, and put recording.json there in one step. All of it is on disk when
/// the call returns; no file is copied.
/// \throws std::runtime_error naming the file; recording.json is as it was then
void completeRecording(const std::filesystem::path& folder, RecordingInfo info);

/// Remove what lies in the folder's storage and is no file of \p info. What cannot be removed
/// stays.
void removeUnnamed(const std::filesystem::path& folder, const RecordingInfo& info);

/// Remove the files of a live recording, the journal last, and see to it that they stay away.
void removeLiveFiles(const std::filesystem::path& folder);

}  // namespace kyr::recording
