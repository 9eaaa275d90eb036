#include "cli/RecordingFolder.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "cli/Errors.h"
#include "cli/Files.h"
#include "kyr/platform/FileSystem.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

constexpr const char* kChooseAnother = "choose another name";

constexpr const char* kReplacedInfix = ".replaced-";

// Other files in the folder are the user's.
bool holdsOnlyRecording(const fs::path& folder) {
  return std::all_of(fs::directory_iterator(folder), fs::directory_iterator(),
                     [](const fs::directory_entry& entry) {
                       const std::string name = entry.path().filename().string();
                       return name == "storage" || name == "signals.parquet" ||
                              name.rfind("recording.", 0) == 0;
                     });
}

}  // namespace

bool isRecording(const fs::path& folder) {
  return fs::exists(folder / "recording.json") ||
         recording::isLiveRecording(Path::fromFilesystem(folder));
}

void checkNewRecording(const std::string& folder, bool replaces) {
  if (folder.empty()) throw UsageError("FOLDER is empty");
  const fs::path path = wholePath(folder);
  if (!fs::exists(fs::symlink_status(path))) {
    if (fs::is_directory(path.parent_path())) return;
    throw std::runtime_error(
        fmt::format("{} cannot be made: {} is no folder", folder, path.parent_path().string()));
  }
  if (fs::is_directory(path) && fs::is_empty(path)) return;
  if (!isRecording(path)) {
    throw std::runtime_error(
        fmt::format("{} exists and is no recording: {}", folder, kChooseAnother));
  }
  if (!replaces) {
    throw std::runtime_error(fmt::format(
        "{} is a recording already: {}, or replace it with --force", folder, kChooseAnother));
  }
}

void checkSavedRecording(const std::string& folder, bool replaces) {
  checkNewRecording(folder, replaces);
  if (!recording::isLiveRecording(Path::fromFilesystem(wholePath(folder)))) return;
  throw std::runtime_error(
      fmt::format("{} is a recording that is not finished, and is not replaced (kyr recover {} "
                  "finishes it): {}",
                  folder, folder, kChooseAnother));
}

std::vector<fs::path> replacedRecordings(const std::string& folder) {
  const fs::path path = wholePath(folder);
  const std::string start = path.filename().string() + kReplacedInfix;
  std::vector<fs::path> found;
  if (!fs::is_directory(path.parent_path())) return found;
  for (const fs::directory_entry& entry : fs::directory_iterator(path.parent_path())) {
    const bool isNamedSo = entry.path().filename().string().rfind(start, 0) == 0;
    if (isNamedSo && fs::is_directory(entry.symlink_status()) && isRecording(entry.path()) &&
        holdsOnlyRecording(entry.path())) {
      found.push_back(entry.path());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

ReplacedRecording::ReplacedRecording(const std::string& folder) : folder_(wholePath(folder)) {
  if (!fs::is_directory(folder_) || fs::is_empty(folder_)) return;
  if (!holdsOnlyRecording(folder_)) {
    throw std::runtime_error(
        fmt::format("{} holds other files besides its recording: {}", folder, kChooseAnother));
  }
  const Path path = Path::fromFilesystem(folder_);
  if (recording::isLiveRecording(path) && recording::describeLiveRecording(path).isBeingWritten) {
    throw std::runtime_error(fmt::format("{} is still being recorded: {}", folder, kChooseAnother));
  }
  aside_ = fileSystem::uniqueName(
               Path::fromFilesystem(folder_.parent_path()),
               Path::fromFilesystem(folder_.filename()).text() + toUtf16(kReplacedInfix), u"")
               .toFilesystem();
  fs::rename(folder_, aside_);
}

ReplacedRecording::~ReplacedRecording() {
  std::error_code ignored;
  if (!aside_.empty()) fs::rename(aside_, folder_, ignored);
}

bool ReplacedRecording::restore() {
  if (aside_.empty()) return false;
  fs::remove_all(folder_);
  fs::rename(aside_, folder_);
  aside_.clear();
  return true;
}

void ReplacedRecording::remove() {
  if (!aside_.empty()) fs::remove_all(aside_);
  aside_.clear();
}

}  // namespace kyr::tool
