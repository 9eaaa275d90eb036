#include "recording/LiveState.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "recording/LiveFormat.h"
#include "recording/LiveJournal.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

struct Flush {
  LiveDescription live;
  JournalLine line;
};

// \param line  of the journal
Flush flushOf(const OpenFolder& folder, LiveDescription live, std::optional<JournalLine> line,
              bool isBeingWritten) {
  if (!isBeingWritten && live.isSynced()) {
    const std::shared_ptr<const OpenFolder> unowned(std::shared_ptr<void>(), &folder);
    auto other = lineInPacks(checkedPacks(unowned), live);
    if (other && (!line || other->isNewerThan(*line))) line = std::move(other);
  }
  if (!line) return {std::move(live), {}};
  takeBackTo(*line, live);
  return {std::move(live), *std::move(line)};
}

// The description may be rewritten, and a line for the new one follow, between two looks.
Flush readFlush(const OpenFolder& folder, bool isBeingWritten) {
  constexpr int kAttempts = 10;
  const std::string source = (folder.path() / kLiveFile).string();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    LiveDescription live = readLiveJson(folder.readText(kLiveFile), source);
    const auto journal = folder.open(kJournalFile);
    auto newest = lastJournalLine(*journal, live, NewerLines::found);
    const bool isOlder = newest && newest->line.sequence > live.sequence;
    if (newest && !isOlder) {
      return flushOf(folder, std::move(live), std::move(newest->line), isBeingWritten);
    }
    // How much of the journal is read depends on the list, of which there may be a newer one.
    constexpr int kAttemptsWithoutLine = 2;
    if (journal->size() == 0 || (!newest && attempt + 1 >= kAttemptsWithoutLine)) {
      return flushOf(folder, std::move(live), std::nullopt, isBeingWritten);
    }
  }
  throw std::runtime_error(source + ": is older than the journal beside it");
}

}  // namespace

LiveRecordingInfo readLiveState(const OpenFolder& folder) {
  LiveRecordingInfo info;
  info.isBeingWritten = isBeingWritten(folder);
  Flush flush = readFlush(folder, info.isBeingWritten);
  info.formatVersion = flush.live.formatVersion;
  info.attributes = flush.live.attributes;
  std::map<int, std::uint64_t> rows;
  flush.line.rows.resize(2 * flush.live.signals.size(), 0);
  for (std::size_t i = 0; i < flush.live.signals.size(); ++i) {
    LiveSignalInfo signal;
    static_cast<SignalInfo&>(signal) = std::move(flush.live.signals[i]);
    // A damaged list may have lost the file whose rows the journal counts.
    if (signal.timeStorageId) signal.timeRows = flush.line.rows[2 * i];
    if (signal.dataStorageId) signal.dataRows = flush.line.rows[2 * i + 1];
    signal.rowCount = signal.dataRows > 0 ? signal.dataRows : signal.timeRows;
    const auto note = [&rows](std::optional<int> id, std::uint64_t count) {
      if (id) rows[*id] = std::max(rows[*id], count);
    };
    note(signal.timeStorageId, signal.timeRows);
    note(signal.dataStorageId, signal.dataRows);
    info.signals.push_back(std::move(signal));
  }
  for (const auto& [id, count] : rows) info.files.push_back({id, 0, count, ""});
  return info;
}

std::string nameOfLiveFile(const OpenFolder& folder, int storageId) {
  return storedName(storageId, [&](const std::string& name) { return folder.hasStored(name); });
}

std::uint64_t sizeOfLiveFile(const OpenFolder& folder, int storageId) {
  try {
    return folder.sizeOfStored(nameOfLiveFile(folder, storageId));
  } catch (const std::system_error&) {
    return 0;
  }
}

bool isLiveRecording(const Path& folder) {
  const fs::path path = folder.toFilesystem();
  return !fs::exists(descriptionPath(path)) &&
         (fs::exists(path / kLiveFile) || fs::exists(path / kJournalFile));
}

LiveRecordingInfo describeLiveRecording(const Path& folder, Links links) {
  const OpenFolder opened(folder.toFilesystem(), links);
  LiveRecordingInfo info = readLiveState(opened);
  for (FileInfo& file : info.files) file.size = sizeOfLiveFile(opened, file.storageId);
  return info;
}

}  // namespace kyr::recording
