#include <fmt/format.h>

#include <stdexcept>

#include "kyr/recording/LiveReader.h"
#include "kyr/recording/RecordingInfo.h"
#include "recording/FolderFiles.h"
#include "recording/LiveJournal.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"

namespace kyr::recording {

namespace fs = std::filesystem;

RecordingInfo describeRecording(const Path& folder) {
  const fs::path path = folder.toFilesystem();
  if (!fs::exists(path)) {
    throw std::runtime_error(fmt::format("{}: no such folder", path.string()));
  }
  const fs::path description = descriptionPath(path);
  if (!fs::is_regular_file(description)) {
    if (isLiveRecording(folder)) {
      throw std::runtime_error(
          path.string() +
          (isBeingWritten(path)
               ? ": is still being recorded; if that is never finished, kyr recover saves it"
               : ": was not finished: kyr recover makes a recording of it"));
    }
    throw std::runtime_error(
        fmt::format("{}: not a recording: it has no {}", path.string(), kDescriptionFile));
  }
  return readRecordingJson(readTextFile(description), description.string());
}

}  // namespace kyr::recording
