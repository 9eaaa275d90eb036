#include "kyr/recording/LiveReader.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/InputFile.h"
#include "recording/FolderFiles.h"
#include "recording/LiveJournal.h"
#include "recording/RecordingFolder.h"
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
    parquet::PartRows read({fileOf(*id, to).read(from, to - from)});
    rows.bytes = std::move(read.bytes);
    if (read.dimensions) rows.dimensions = *std::move(read.dimensions);
    rows.sizes = std::move(read.sizes);
    return rows;
  }

  const LiveRecordingInfo& info() const { return info_; }

 private:
  parquet::InputFile& fileOf(int id, std::uint64_t rows) {
    const fs::path path = storagePath(folder_, id);
    if (files_.size() >= kMaxOpenFiles && files_.count(id) == 0) files_.clear();
    auto& file = files_[id];
    if (!file || file->rows() < rows) {
      file = parquet::openAnyFile(std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly), rows,
                                  parquet::BatchChecks::no);
    }
    if (file->rows() >= rows) return *file;
    throw std::runtime_error(
        fmt::format("{}: holds {} rows, but {} were flushed", path.string(), file->rows(), rows));
  }

  static constexpr std::size_t kMaxOpenFiles = 128;

  fs::path folder_;
  LiveRecordingInfo info_;
  std::map<int, std::shared_ptr<parquet::InputFile>> files_;
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
