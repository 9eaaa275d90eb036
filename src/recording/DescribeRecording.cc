#include <fmt/format.h>

#include <stdexcept>

#include "kyr/recording/RecordingInfo.h"
#include "recording/LiveJournal.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"

namespace kyr::recording {

RecordingInfo describeRecording(const OpenFolder& folder) {
  const std::string path = folder.path().string();
  if (!folder.has(kDescriptionFile)) {
    if (folder.has(kLiveFile) || folder.has(kJournalFile)) {
      throw std::runtime_error(
          path + (isBeingWritten(folder)
                      ? ": is still being recorded; if that is never finished, kyr recover saves it"
                      : ": was not finished: kyr recover makes a recording of it"));
    }
    throw std::runtime_error(
        fmt::format("{}: not a recording: it has no {}", path, kDescriptionFile));
  }
  return readRecordingJson(folder.readText(kDescriptionFile),
                           descriptionPath(folder.path()).string());
}

RecordingInfo describeRecording(const Path& folder, Links links) {
  return inOpenFolder(folder.toFilesystem(), links,
                      [](const auto& open) { return describeRecording(*open); });
}

}  // namespace kyr::recording
