#include "recording/LiveJournal.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

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
    : folder_(folder), file_(folder_.open(kJournalFile, DiskFile::Mode::createNew)) {
  if (!lockPatiently(*file_)) throw std::runtime_error(file_->path().string() + ": is in use");
}

void LiveJournal::append(const JournalLine& line, bool syncs, bool isElsewhere) {
  constexpr std::uint64_t kLong = std::uint64_t{1} << 20U;
  constexpr std::uint64_t kLines = 64;
  removeRest();
  const std::string text = writeJournalLine(line);
  if (end_ > std::max<std::uint64_t>(kLong, kLines * text.size())) return replace(text, syncs);
  const std::uint64_t unsynced = unsynced_ + text.size();
  const bool isDue = !isElsewhere || unsynced > journalTail(line.rows.size() / 2) / 2;
  try {
    file_->writeAt(end_, {text});
    if (syncs && isDue) file_->syncData();
  } catch (...) {
    hasRest_ = !file_->tryTruncate(end_);
    throw;
  }
  end_ += text.size();
  unsynced_ = isDue ? 0 : unsynced;
}

void LiveJournal::removeRest() {
  if (!hasRest_) return;
  file_->truncate(end_);
  hasRest_ = false;
}

void LiveJournal::syncName() {
  if (!isNameNew_) return;
  folder_.sync();
  isNameNew_ = false;
}

void LiveJournal::replace(const std::string& text, bool syncs) {
  const std::string name = std::string(kJournalFile) + ".new";
  folder_.remove(name);
  auto file = folder_.open(name, DiskFile::Mode::createNew);
  if (!lockPatiently(*file)) throw std::runtime_error(file->path().string() + ": is in use");
  file->writeAt(0, {text});
  if (syncs) file->syncAll();
  folder_.rename(name, folder_, kJournalFile);
  previous_ = std::exchange(file_, std::move(file));
  end_ = text.size();
  unsynced_ = 0;
  isNameNew_ = syncs;
}

JournalEnd readJournal(const Folder& folder, const LiveDescription& live) {
  JournalEnd end;
  if (!folder.has(kJournalFile)) {
    end.fault = fmt::format("{} is missing", kJournalFile);
    return end;
  }
  const auto file = folder.open(kJournalFile);
  const DiskFile& journal = *file;
  auto last = lastJournalLine(journal, live, NewerLines::skipped);
  end.isEmpty = journal.size() == 0;
  if (end.isEmpty) {
    end.fault = fmt::format("{} is empty", kJournalFile);
  } else if (!last) {
    end.fault = fmt::format("{} has no line that is whole", kJournalFile);
  } else {
    end.line = std::move(last->line);
    end.end = last->end;
    std::string rest(static_cast<std::size_t>(journal.size() - end.end), '\0');
    rest.resize(journal.readAt(end.end, rest.data(), rest.size()));
    if (rest.empty()) return end;
    end.fault = fmt::format("the end of {} is damaged", kJournalFile);
    // Bytes that did not come to the disk are zeros.
    end.isTorn = rest.back() != '\n' || rest.find('\0') != std::string::npos;
  }
  return end;
}

std::optional<JournalLine> lineInPacks(const LivePacks& packs, const LiveDescription& live) {
  std::optional<JournalLine> newest;
  for (const auto& [name, pack] : packs.packs()) {
    auto line = readJournalLine(pack->lastFlush(), live);
    if (!line || line->sequence > live.sequence) continue;
    if (!newest || line->isNewerThan(*newest)) newest = std::move(line);
  }
  return newest;
}

JournalEnd completeJournal(const Folder& folder, const LivePacks& packs,
                           const LiveDescription& live) {
  JournalEnd journal = readJournal(folder, live);
  if (!live.isSynced() || !journal.line) return journal;
  if (!journal.fault.empty() && !journal.isTorn) return journal;
  auto line = lineInPacks(packs, live);
  const bool isNewer = line && line->isNewerThan(*journal.line);
  if (!isNewer && !journal.isTorn) return journal;
  const auto file = folder.open(kJournalFile, DiskFile::Mode::readWrite);
  file->truncate(journal.end);
  if (isNewer) {
    const std::string text = writeJournalLine(*line);
    file->writeAt(journal.end, {text});
    journal.end += text.size();
    journal.line = std::move(line);
  }
  file->syncAll();
  journal.fault.clear();
  journal.isTorn = false;
  return journal;
}

bool isBeingWritten(const OpenFolder& folder) {
  try {
    return !folder.open(kJournalFile)->tryLock(DiskFile::Lock::shared);
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::no_such_file_or_directory) return false;
    throw;
  }
}

// Who writes may have replaced the journal before the old one could be locked.
bool RecoveryLock::isNamed() const {
  return folder_.has(kJournalFile) &&
         folder_.open(kJournalFile)->state().isSameFile(file_->state());
}

// A folder without a journal is locked itself.
RecoveryLock::RecoveryLock(const Folder& folder)
    : file_(folder.has(kJournalFile) ? folder.open(kJournalFile) : nullptr), folder_(folder) {
  if (file_ ? lockPatiently(*file_) && isNamed() : lockPatiently(folder_)) return;
  throw std::runtime_error(folder.path().string() +
                           ": is still being recorded, or recovered by another");
}

}  // namespace kyr::recording
