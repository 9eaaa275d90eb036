#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/WorkingFolder.h"
#include "platform/DiskFile.h"
#include "platform/LivingProcesses.h"
#include "recording/CompleteRecording.h"
#include "recording/FolderFiles.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kOldSuffix = ".old";

bool areAll(std::string_view text, std::string_view letters) {
  return !text.empty() && text.find_first_not_of(letters) == std::string_view::npos;
}

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The name of the recording to which a folder `<name>.saving-*` or `<name>.importing-*` belongs.
std::optional<std::string> recordingOf(std::string_view folder) {
  if (endsWith(folder, kOldSuffix)) folder.remove_suffix(kOldSuffix.size());
  for (const std::string_view infix : {kSavingInfix, kImportingInfix}) {
    const std::size_t at = folder.rfind(infix);
    if (at != std::string_view::npos && at > 0 &&
        areAll(folder.substr(at + infix.size()), "0123456789abcdef")) {
      return std::string(folder.substr(0, at));
    }
  }
  return std::nullopt;
}

bool isTemporaryName(std::string_view name, std::string_view prefix) {
  return name.substr(0, prefix.size()) == prefix && name.size() == prefix.size() + 16 &&
         areAll(name.substr(prefix.size()), "0123456789abcdef");
}

// Whether generateTempDirectoryName() may have made the name for a pool. The name ends in 32 bytes
// in base64, with "_" in place of "/".
bool isPoolName(std::string_view name) {
  constexpr std::string_view kPrefix = "parquetStorage_";
  constexpr std::string_view kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+_";
  return name.size() == kPrefix.size() + 44 && name.substr(0, kPrefix.size()) == kPrefix &&
         name.back() == '=' && areAll(name.substr(kPrefix.size(), 43), kLetters);
}

bool belongsToThisUser(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && status.st_uid == ::geteuid();
}

// Whether kyr leaves such a folder among temporary files. A pool's folder with files is none: the
// pool may be in use, or somebody may need the files.
bool isTemporary(const fs::path& path) {
  const std::string name = path.filename().string();
  std::error_code error;
  return belongsToThisUser(path) &&
         (isTemporaryName(name, kTemporaryPrefix) || isTemporaryName(name, kOldTemporaryPrefix) ||
          (isPoolName(name) && fs::is_empty(path, error) && !error));
}

// A file of a storage: named by a number or as a pack, and Parquet, or cut off before it was.
bool isStorageFile(const fs::path& path) {
  const std::string name = path.filename().string();
  if (!isPackName(name) && !storageIdOf(name)) return false;
  char magic[4]{};
  const std::size_t size = DiskFile(path, DiskFile::Mode::readOnly).readAt(0, magic, sizeof(magic));
  return std::string_view(magic, size) == std::string_view("PAR1", size);
}

bool isOwnFile(const fs::path& path) {
  std::string name = path.filename().string();
  // What replaceTextFile() had not renamed yet.
  if (path.extension() == ".new") name = path.stem().string();
  return name == kDescriptionFile || name == kSignalsFile || name == kPipeFile ||
         isStorageFile(path);
}

bool isOwnFolder(const std::string& name) {
  return name == kStorageFolder || name == "shared" || name == "separate" || name == "demo" ||
         recordingOf(name);
}

// The first entry of a folder, and of those in it, that kyr did not make; empty if there is none.
// \param twin  the folder of the recording of which this one may hold links
// \param isOwn  whether kyr made the folder itself, and not only links in it
fs::path foreignIn(const fs::path& folder, const fs::path& twin, bool isOwn) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const fs::path& path = entry.path();
    const fs::path other = twin.empty() ? twin : twin / path.filename();
    if (isFolder(path)) {
      const bool isOwnToo = isOwn && isOwnFolder(path.filename().string());
      if (!isOwnToo && !isFolder(other)) return path;
      fs::path foreign = foreignIn(path, isOwnToo ? fs::path() : other, isOwnToo);
      if (!foreign.empty()) return foreign;
      continue;
    }
    const bool isFile = fs::is_regular_file(entry.symlink_status());
    if (isOwn && isFile && isOwnFile(path)) continue;
    if (other.empty() || !isLinkOf(path, other)) return path;
  }
  return {};
}

std::uint64_t bytesIn(const fs::path& folder) {
  std::uint64_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (fs::is_regular_file(entry.symlink_status())) bytes += entry.file_size();
  }
  return bytes;
}

fs::file_time_type lastChangeIn(const fs::path& folder) {
  fs::file_time_type last = fs::last_write_time(folder);
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_symlink()) last = std::max(last, entry.last_write_time());
  }
  return last;
}

bool wasChangedLately(const fs::path& folder) {
  const fs::file_time_type last = lastChangeIn(folder);
  if (last > fs::file_time_type::clock::now() - std::chrono::hours(1)) return true;
  const auto oldest = startOfOldestProcessWith("libkyr_parquet_serialization");
  return oldest && *oldest <= last;
}

bool isRecording(const fs::path& folder) {
  try {
    describeRecording(Path::fromFilesystem(folder));
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

// A folder that may be a leftover, looked at while its lock is held.
class Candidate {
 public:
  explicit Candidate(const fs::path& path) : path_(path) {
    try {
      inTheWay_ = find();
      if (inTheWay_.empty()) bytes_ = bytesIn(path_);
    } catch (const std::exception& error) {
      inTheWay_ = error.what();
    }
  }

  const std::string& inTheWay() const { return inTheWay_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  std::string find() {
    folder_.emplace(path_, DiskFile::Mode::readOnly);
    if (!folder_->tryLock(DiskFile::Lock::exclusive)) return "a process uses it";
    const std::string name = path_.filename().string();
    if (const auto recording = recordingOf(name)) {
      return findBeside(path_.parent_path() / *recording);
    }
    if (!isTemporary(path_)) return "kyr makes no such folders";
    // Pools and older versions take no lock.
    const bool hasLock = isTemporaryName(name, kTemporaryPrefix);
    if (!hasLock && wasChangedLately(path_)) return "a process may use it";
    return findForeign({});
  }

  std::string findBeside(const fs::path& recording) {
    if (endsWith(path_.string(), kOldSuffix) && !isRecording(recording)) {
      return fmt::format("it is the recording {} as it was before a save that was killed",
                         recording.string());
    }
    return findForeign(recording);
  }

  std::string findForeign(const fs::path& twin) {
    const fs::path foreign = foreignIn(path_, twin, /*isOwn=*/true);
    if (foreign.empty()) return {};
    return fmt::format("kyr did not make {}", foreign.lexically_relative(path_).string());
  }

  fs::path path_;
  std::optional<DiskFile> folder_;
  std::string inTheWay_;
  std::uint64_t bytes_ = 0;
};

template <typename IsWanted>
std::vector<Leftover> leftoversIn(const fs::path& folder, IsWanted&& isWanted) {
  std::vector<Leftover> found;
  std::error_code ignored;
  for (fs::directory_iterator it(folder, ignored), end; it != end; it.increment(ignored)) {
    const fs::path& path = it->path();
    if (!isFolder(path) || !isWanted(path)) continue;
    const Candidate candidate(path);
    found.push_back({Path::fromFilesystem(path), candidate.bytes(), candidate.inTheWay()});
  }
  std::sort(found.begin(), found.end(),
            [](const Leftover& a, const Leftover& b) { return a.path < b.path; });
  return found;
}

}  // namespace

std::vector<Leftover> collectUnusedFiles(const Path& folder, bool isDry) {
  const Folder open(folder.toFilesystem());
  const RecordingInfo info = describeRecording(OpenFolder(open));
  std::vector<Leftover> unused;
  if (!open.has(kStorageFolder)) return unused;
  const Folder storage = open.folder(kStorageFolder);
  for (const std::string& name : unnamedIn(storage, info)) {
    Leftover found;
    found.path = Path::fromFilesystem(storage.path() / name);
    if (isStorageName(name) && storage.entry(name) == Folder::Entry::file) {
      found.bytes = storage.open(name)->size();
      if (!isDry) storage.remove(name);
    } else {
      found.inTheWay = "kyr did not make it";
    }
    unused.push_back(std::move(found));
  }
  return unused;
}

std::vector<Leftover> findLeftovers(const Path& folder) {
  const fs::path whole = canonicalFolder(folder.toFilesystem());
  const std::string recording = whole.filename().string();
  return leftoversIn(whole.parent_path(), [&](const fs::path& path) {
    return recordingOf(path.filename().string()) == recording;
  });
}

std::vector<Leftover> findTemporaryLeftovers() {
  std::error_code missing;
  const fs::path directory = fs::temp_directory_path(missing);
  return missing ? std::vector<Leftover>() : leftoversIn(directory, isTemporary);
}

bool removeLeftover(const Leftover& leftover) {
  const fs::path path = leftover.path.toFilesystem();
  if (!isFolder(path)) return false;
  const Candidate candidate(path);
  if (!candidate.inTheWay().empty()) return false;
  fs::remove_all(path);
  return true;
}

}  // namespace kyr::recording
