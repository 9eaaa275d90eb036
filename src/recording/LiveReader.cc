#include "kyr/recording/LiveReader.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/growing/FileRecovery.h"
#include "recording/FolderFiles.h"
#include "recording/LiveJournal.h"
#include "recording/RecordingFolder.h"
#include "safe/SharedStream.h"
#include "schema/PartTables.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using Part = parquet::StreamableSignal::SignalPart;

namespace {

struct LiveState {
  LiveDescription live;
  JournalLine line;
};

// The description may be rewritten, and a line of the new one follow, between two looks.
LiveState readState(const fs::path& folder) {
  constexpr int kAttempts = 10;
  const fs::path description = folder / kLiveFile;
  LiveState state;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    state.live = readLiveJson(readTextFile(description), description.string());
    const DiskFile journal(folder / kJournalFile, DiskFile::Mode::readOnly);
    const auto newest = lastJournalLine(journal, std::numeric_limits<std::uint64_t>::max());
    if (!newest) return state;
    state.line = *newest;
    if (newest->sequence <= state.live.sequence) return state;
  }
  throw std::runtime_error(description.string() + ": is older than the journal beside it");
}

LiveRecordingInfo infoOf(const fs::path& folder, LiveState state) {
  LiveRecordingInfo info;
  info.formatVersion = kLiveFormatVersion;
  info.isBeingWritten = isBeingWritten(folder);
  std::map<int, std::uint64_t> rows;
  state.line.rows.resize(2 * state.live.signals.size(), 0);
  for (std::size_t i = 0; i < state.live.signals.size(); ++i) {
    LiveSignalInfo signal;
    static_cast<SignalInfo&>(signal) = std::move(state.live.signals[i]);
    signal.timeRows = state.line.rows[2 * i];
    signal.dataRows = state.line.rows[2 * i + 1];
    signal.rowCount = signal.dataRows > 0 ? signal.dataRows : signal.timeRows;
    const auto note = [&rows](std::optional<int> id, std::uint64_t count) {
      if (id) rows[*id] = std::max(rows[*id], count);
    };
    note(signal.timeStorageId, signal.timeRows);
    note(signal.dataStorageId, signal.dataRows);
    info.signals.push_back(std::move(signal));
  }
  for (const auto& [id, count] : rows) {
    std::error_code missing;
    const auto size = fs::file_size(storagePath(folder, id), missing);
    info.files.push_back({id, missing ? 0 : size, count, ""});
  }
  return info;
}

// Rows of a file that grows, or of one that was written in one go.
class LiveView {
 public:
  explicit LiveView(const fs::path& path) {
    try {
      growing_.emplace(parquet::openGrowingFile(path));
    } catch (const std::runtime_error&) {
      whole_.emplace(path);
    }
  }

  std::uint64_t rows() const { return growing_ ? growing_->rowCount() : whole_->rows(); }
  std::shared_ptr<::arrow::Table> read(std::uint64_t first, std::uint64_t count) {
    return growing_ ? growing_->read(first, count) : whole_->read(first, count);
  }

 private:
  std::optional<parquet::GrowingFileView> growing_;
  std::optional<parquet::StoredRows> whole_;
};

}  // namespace

bool isLiveRecording(const Path& folder) {
  const fs::path path = folder.toFilesystem();
  return !fs::exists(descriptionPath(path)) &&
         (fs::exists(path / kLiveFile) || fs::exists(path / kJournalFile));
}

LiveRecordingInfo describeLiveRecording(const Path& folder) {
  const fs::path path = folder.toFilesystem();
  return infoOf(path, readState(path));
}

class LiveReader::Impl {
 public:
  explicit Impl(const Path& folder)
      : folder_(folder.toFilesystem()), info_(describeLiveRecording(folder)) {}

  bool refresh() {
    if (fs::exists(descriptionPath(folder_))) return false;
    try {
      info_ = infoOf(folder_, readState(folder_));
    } catch (const std::exception&) {
      if (fs::exists(descriptionPath(folder_))) return false;
      throw;
    }
    return true;
  }

  LiveRows read(const LiveSignalInfo& signal, Part part, std::uint64_t from, std::uint64_t to) {
    const bool isTime = part == Part::time;
    const std::optional<int> id = isTime ? signal.timeStorageId : signal.dataStorageId;
    to = std::min(to, isTime ? signal.timeRows : signal.dataRows);
    LiveRows rows;
    if (!id || from >= to) return rows;
    parquet::PartRows read({viewOf(*id, to).read(from, to - from)});
    rows.bytes = std::move(read.bytes);
    if (read.dimensions) rows.dimensions = *std::move(read.dimensions);
    rows.sizes = std::move(read.sizes);
    return rows;
  }

  const LiveRecordingInfo& info() const { return info_; }

 private:
  // Of at least so many rows.
  LiveView& viewOf(int id, std::uint64_t rows) {
    const auto known = views_.find(id);
    if (known != views_.end() && known->second.rows() >= rows) return known->second;
    const fs::path path = storagePath(folder_, id);
    if (known != views_.end()) views_.erase(known);
    if (views_.size() >= kMaxOpenFiles) views_.clear();
    auto& view = views_.emplace(id, path).first->second;
    if (view.rows() >= rows) return view;
    throw std::runtime_error(
        fmt::format("{}: holds {} rows, but {} were flushed", path.string(), view.rows(), rows));
  }

  static constexpr std::size_t kMaxOpenFiles = 128;

  fs::path folder_;
  LiveRecordingInfo info_;
  std::map<int, LiveView> views_;
};

LiveReader::LiveReader(const Path& folder) : impl_(std::make_unique<Impl>(folder)) {}

LiveReader::~LiveReader() = default;

const LiveRecordingInfo& LiveReader::info() const { return impl_->info(); }

bool LiveReader::refresh() { return impl_->refresh(); }

LiveRows LiveReader::read(const LiveSignalInfo& signal, Part part, std::uint64_t from,
                          std::uint64_t to) {
  return impl_->read(signal, part, from, to);
}

}  // namespace kyr::recording
