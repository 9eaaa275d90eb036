#pragma once

#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"
#include "platform/Folder.h"

namespace kyr::recording {

/// Makes a folder, in whose storage the files of \p info lie, a recording: takes the sizes and
/// checksums of the files, and puts recording.json there in one step. All of it is on disk when the
/// call returns; no file is copied.
/// \param syncsFiles  whether the files need to be synced
/// \throws std::runtime_error naming the file; recording.json is as it was then
void completeRecording(const Folder& folder, RecordingInfo info, bool syncsFiles = true);

/// The entries of the folder's storage that are no files of \p info, ascending.
std::vector<std::string> unnamedIn(const Folder& storage, const RecordingInfo& info);

/// Removes the files that unnamedIn() tells and that kyr may have made, as far as that is possible,
/// and syncs the storage folder.
/// \return whether all of them are gone, also after a power cut
bool removeUnnamed(const Folder& folder, const RecordingInfo& info);

/// Removes the files of a live recording, the journal last, and syncs the folder.
void removeLiveFiles(const Folder& folder);

}  // namespace kyr::recording
