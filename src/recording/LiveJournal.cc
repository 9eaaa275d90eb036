#include "recording/LiveJournal.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

// Those who only look have the lock for a moment.
template <typename Lockable>
bool lockPatiently(Lockable& file) {
  constexpr int kAttempts = 100;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (file.tryLock(DiskFile::Lock::exclusive)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

}  // namespace

LiveJournal::LiveJournal(const fs::path& folder)
    : file_(folder / kJournalFile, DiskFile::Mode::createNew) {
  if (!lockPatiently(file_)) throw std::runtime_error(file_.path().string() + ": is in use");
}

void LiveJournal::append(const JournalLine& line, bool syncs) {
  const std::string text = writeJournalLine(line);
  try {
    file_.writeAt(end_, {text});
  } catch (...) {
    file_.tryTruncate(end_);
    throw;
  }
  end_ += text.size();
  if (syncs) file_.syncData();
}

bool isBeingWritten(const OpenFolder& folder) {
  try {
    return !folder.open(kJournalFile)->tryLock(DiskFile::Lock::shared);
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::no_such_file_or_directory) return false;
    throw;
  }
}

// A folder without a journal is locked itself.
RecoveryLock::RecoveryLock(const Folder& folder)
    : file_(folder.has(kJournalFile) ? folder.open(kJournalFile) : nullptr), folder_(folder) {
  if (file_ ? lockPatiently(*file_) : lockPatiently(folder_)) return;
  throw std::runtime_error(folder.path().string() +
                           ": is still being recorded, or recovered by another");
}

}  // namespace kyr::recording
