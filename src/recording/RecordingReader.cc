#include "kyr/recording/RecordingReader.h"

#include <arrow/c/bridge.h>
#include <arrow/record_batch.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "recording/ArrowStream.h"
#include "recording/ContentFiles.h"
#include "recording/EnvelopeCache.h"
#include "recording/LiveState.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingFolder.h"
#include "recording/SampleBlocksImpl.h"
#include "recording/SignalNames.h"
#include "recording/SignalNumbers.h"
#include "recording/SignalRows.h"
#include "recording/TimeIndex.h"
#include "schema/PartTables.h"

namespace kyr::recording {

namespace {

// What a recording said at one moment.
struct Snapshot {
  RecordingState state = RecordingState::finished;
  std::shared_ptr<RecordingInfo> info;
  std::vector<SignalCounts> counts;  // by signal; only for a live recording

  bool isLive() const { return state != RecordingState::finished; }
};

Snapshot finishedSnapshot(const OpenFolder& folder) {
  return {RecordingState::finished, std::make_shared<RecordingInfo>(describeRecording(folder)), {}};
}

Snapshot liveSnapshot(const OpenFolder& folder) {
  LiveRecordingInfo live = readLiveState(folder);
  std::sort(live.signals.begin(), live.signals.end(),
            [](const auto& a, const auto& b) { return a.signalId < b.signalId; });
  Snapshot snapshot;
  snapshot.state =
      live.isBeingWritten ? RecordingState::beingRecorded : RecordingState::notFinished;
  snapshot.info = std::make_shared<RecordingInfo>();
  snapshot.info->formatVersion = live.formatVersion;
  snapshot.info->files = std::move(live.files);
  snapshot.info->attributes = std::move(live.attributes);
  for (LiveSignalInfo& signal : live.signals) {
    snapshot.counts.push_back({signal.timeRows, signal.dataRows});
    snapshot.info->signals.push_back(std::move(signal));
  }
  return snapshot;
}

// A recording may be finished between two looks at its folder.
Snapshot readSnapshot(const OpenFolder& folder) {
  const bool isLive =
      !folder.has(kDescriptionFile) && (folder.has(kLiveFile) || folder.has(kJournalFile));
  if (!isLive) return finishedSnapshot(folder);
  try {
    return liveSnapshot(folder);
  } catch (const std::exception&) {
    if (!folder.has(kDescriptionFile)) throw;
  }
  return finishedSnapshot(folder);
}

bool areSame(const Snapshot& a, const Snapshot& b) {
  if (a.state != b.state || a.counts.size() != b.counts.size()) return false;
  for (std::size_t i = 0; i < a.counts.size(); ++i) {
    const SignalInfo& one = a.info->signals[i];
    const SignalInfo& other = b.info->signals[i];
    if (a.counts[i].times != b.counts[i].times || a.counts[i].samples != b.counts[i].samples ||
        one.signalId != other.signalId || one.timeStorageId != other.timeStorageId ||
        one.dataStorageId != other.dataStorageId) {
      return false;
    }
  }
  return true;
}

RowRange clipped(const RowRange& rows, std::uint64_t count) {
  const std::uint64_t to = std::min(rows.to, count);
  return {std::min(rows.from, to), to};
}

const std::vector<int> kNone;

}  // namespace

class RecordingReader::Impl {
 public:
  Impl(const Path& path, const ReaderOptions& options)
      : Impl(inOpenFolder(path.toFilesystem(), options.links,
                          [](const auto& open) { return std::pair(open, readSnapshot(*open)); }),
             options) {}

  Impl(std::pair<std::shared_ptr<const OpenFolder>, Snapshot> opened, const ReaderOptions& options)
      : folder_(std::move(opened.first)),
        options_(options),
        files_(std::make_shared<ContentFiles>(folder_, options.checks, options.maxOpenFiles)),
        envelopes_(options.maxEnvelopeBytes) {
    show(std::move(opened.second));
  }

  RecordingState state() const { return snapshot_.state; }

  bool refresh() {
    if (!snapshot_.isLive()) return false;
    Snapshot fresh = readSnapshot(*folder_);
    if (areSame(snapshot_, fresh)) return false;
    show(std::move(fresh));
    return true;
  }

  RecordingInfo info() {
    RecordingInfo info = *snapshot_.info;
    if (!snapshot_.isLive()) return info;
    for (FileInfo& file : info.files) file.size = sizeOfLiveFile(*folder_, file.storageId);
    for (SignalInfo& signal : info.signals) {
      signal.timeSpan = timeSpan(signal.signalId);
      // Parquet tells a smallest number of 0 as -0.
      if (signal.timeSpan) signal.timeSpan->from += 0.0;
    }
    return info;
  }

  const Attributes& attributes() const { return snapshot_.info->attributes; }

  const std::vector<SignalInfo>& signals() const { return snapshot_.info->signals; }
  const SignalInfo& signal(int id) const { return signals()[placeOf(id)]; }

  int idOf(const std::string& name) {
    const std::vector<int> ids = names().called(name);
    if (ids.size() == 1) return ids.front();
    const std::string folder = folder_->path().string();
    if (!ids.empty()) {
      throw std::invalid_argument(
          fmt::format("{}: {} signals are called \"{}\": those with the ids {}", folder, ids.size(),
                      name, fmt::join(ids, ", ")));
    }
    const std::string nearest = names().nearest(name);
    throw std::invalid_argument(
        fmt::format("{}: no signal is called \"{}\"{}", folder, name,
                    nearest.empty() ? "" : fmt::format("; one is called \"{}\"", nearest)));
  }

  std::vector<int> matching(const std::string& pattern) { return names().matching(pattern); }

  const std::vector<int>& withSameSamples(int id) {
    const SignalInfo& info = signal(id);
    if (!info.dataStorageId) return kNone;
    if (sampleUsers_.empty()) {
      for (const SignalInfo& each : signals()) {
        if (each.dataStorageId) sampleUsers_[*each.dataStorageId].push_back(each.signalId);
      }
    }
    return sampleUsers_.at(*info.dataStorageId);
  }

  const std::vector<int>& withSameTimes(int id) {
    if (!rowsOf(id).hasTimes()) return kNone;
    if (timeUsers_.empty()) {
      for (const SignalInfo& each : signals()) {
        if (const auto key = timeKey(each)) timeUsers_[*key].push_back(each.signalId);
      }
    }
    return timeUsers_.at(*timeKey(signal(id)));
  }

  std::optional<TimeSpan> timeSpan(int id) {
    if (!snapshot_.isLive()) return signal(id).timeSpan;
    SignalRows& rows = rowsOf(id);
    if (rows.timeCount() == 0) return std::nullopt;
    const auto span = indexOf(rows).span(rows.timeCount(), reading(rows));
    const bool isFinite = span && std::isfinite(span->from) && std::isfinite(span->to);
    return isFinite ? span : std::nullopt;
  }

  std::uint64_t readTimes(int id, const RowRange& range, double* out) {
    SignalRows& rows = rowsOf(id);
    const auto [from, to] = clipped(range, rows.timeCount());
    if (from < to) copyTimes(rows, {from, to}, out);
    return to - from;
  }

  std::vector<double> times(int id, const RowRange& range) {
    const RowRange rows = clipped(range, rowsOf(id).timeCount());
    if (rows.from < rows.to) rowsOf(id).requireTimes(rows.to);
    std::vector<double> times(static_cast<std::size_t>(rows.to - rows.from));
    readTimes(id, rows, times.data());
    return times;
  }

  std::uint64_t readElements(int id, const RowRange& range, void* out, std::size_t size) {
    SignalRows& rows = rowsOf(id);
    if (rows.kind() != SampleKind::number && rows.kind() != SampleKind::fixed) {
      throw std::invalid_argument(
          fmt::format("signal {} \"{}\": its samples differ in size", id, rows.signal().name));
    }
    const auto [from, to] = clipped(range, rows.sampleCount());
    if (from == to) return 0;
    const std::uint64_t sample = rows.elementsPerSample() * rows.elementBytes();
    if (sample > 0 && size / sample < to - from) {
      throw std::invalid_argument(
          fmt::format("signal {} \"{}\": {} samples of {} bytes do not fit into {} bytes", id,
                      rows.signal().name, to - from, sample, size));
    }
    rows.readElements(from, to - from, static_cast<char*>(out));
    return to - from;
  }

  SampleRows read(int id, const RowRange& range) {
    SampleRows result;
    result.times = times(id, range);
    SignalRows& rows = rowsOf(id);
    const auto [from, to] = clipped(range, rows.sampleCount());
    if (from == to) return result;
    if (rows.kind() == SampleKind::number) {
      rows.requireSamples(to);
      result.bytes.resize(static_cast<std::size_t>(to - from) * rows.elementBytes());
      rows.readElements(from, to - from, result.bytes.data());
      return result;
    }
    parquet::PartRows part(rows.readSamples(from, to - from).rows);
    result.bytes = std::move(part.bytes);
    if (part.dimensions) result.dimensions = *std::move(part.dimensions);
    result.sizes = std::move(part.sizes);
    return result;
  }

  SampleBlocks blocks(int id, const RowRange& range, std::size_t maxRows) {
    SignalRows rows = makeRows(id, files_);
    rows.open();
    const RowRange pairs = clipped(range, rows.pairCount());
    return SampleBlocks(std::make_unique<SampleBlocks::Impl>(std::move(rows), pairs, maxRows));
  }

  void exportTo(int id, const RowRange& range, ArrowArrayStream* out, std::size_t maxRows) {
    if (out == nullptr) throw std::invalid_argument("there is nowhere to put the Arrow stream");
    constexpr std::size_t kFiles = 2;
    const auto files = std::make_shared<ContentFiles>(folder_, options_.checks, kFiles);
    files->describe(snapshot_.info, snapshot_.isLive());
    SignalRows rows = makeRows(id, files);
    rows.open();
    const RowRange pairs = clipped(range, rows.pairCount());
    const auto status =
        ::arrow::ExportRecordBatchReader(arrowStream(std::move(rows), pairs, maxRows), out);
    if (!status.ok()) throw std::runtime_error(status.ToString());
  }

  std::vector<RowRange> rowsBetween(int id, double from, double to) {
    SignalRows& rows = rowsOf(id);
    if (!(from <= to) || rows.timeCount() == 0) return {};
    return indexOf(rows).rowsBetween(from, to, rows.timeCount(), reading(rows));
  }

  Envelope envelope(int id, double from, double to, std::size_t columns, std::uint64_t element) {
    if (rowsOf(id).kind() == SampleKind::blob) {
      throw std::invalid_argument(
          fmt::format("signal {} \"{}\": its samples are no numbers, so that it has spans and no "
                      "envelope",
                      id, signal(id).name));
    }
    return anyEnvelope(id, from, to, columns, element);
  }

  std::vector<ValueSpan> spans(int id, double from, double to, std::size_t columns,
                               std::uint64_t element) {
    std::vector<ValueSpan> spans = spansOf(anyEnvelope(id, from, to, columns, element), from, to);
    if (rowsOf(id).kind() != SampleKind::blob) return spans;
    constexpr std::uint64_t kShownBytes = 256;
    for (ValueSpan& span : spans) {
      span.value = EnvelopeColumn::kNone;
      if (span.isMixed) continue;
      const std::vector<char> blob = read(id, {span.firstRow, span.firstRow + 1}).bytes;
      span.textBytes = blob.size();
      span.text.assign(blob.data(), std::min<std::size_t>(blob.size(), kShownBytes));
    }
    return spans;
  }

  // The signal that was read last is kept: windows of one signal follow each other.
  SignalRows& rowsOf(int id) {
    if (!last_ || last_->signal().signalId != id) last_.emplace(makeRows(id, files_));
    return *last_;
  }

 private:
  // Times that were read last.
  struct KnownTimes {
    std::int64_t key = 0;
    RowRange rows;
    std::vector<double> times;
  };

  void show(Snapshot fresh) {
    std::unordered_map<int, std::size_t> places;
    places.reserve(fresh.info->signals.size());
    for (const SignalInfo& each : fresh.info->signals) {
      places.emplace(each.signalId, places.size());
    }
    files_->describe(fresh.info, fresh.isLive());
    if (!fresh.isLive()) {
      indexes_.clear();
      envelopes_.clear();
      knownTimes_ = KnownTimes();
    }
    last_.reset();
    names_.reset();
    sampleUsers_.clear();
    timeUsers_.clear();
    places_ = std::move(places);
    snapshot_ = std::move(fresh);
  }

  std::size_t placeOf(int id) const {
    const auto found = places_.find(id);
    if (found != places_.end()) return found->second;
    const auto isNearer = [id](const SignalInfo& a, const SignalInfo& b) {
      return std::abs(std::int64_t{a.signalId} - id) < std::abs(std::int64_t{b.signalId} - id);
    };
    const auto nearest = std::min_element(signals().begin(), signals().end(), isNearer);
    throw std::out_of_range(
        fmt::format("{}: has no signal {}{}", folder_->path().string(), id,
                    nearest == signals().end()
                        ? ""
                        : fmt::format("; there is {} \"{}\"", nearest->signalId, nearest->name)));
  }

  SignalNames& names() {
    if (!names_) names_ = std::make_unique<SignalNames>(signals());
    return *names_;
  }

  SignalRows makeRows(int id, std::shared_ptr<ContentFiles> files) const {
    const std::size_t place = placeOf(id);
    std::shared_ptr<const SignalInfo> info(snapshot_.info, &signals()[place]);
    return {std::move(files), std::move(info),
            snapshot_.isLive() ? &snapshot_.counts[place] : nullptr};
  }

  // Tells contents with times apart: files of times, and data files with a column of times.
  static std::optional<std::int64_t> timeKey(const SignalInfo& info) {
    if (info.timeStorageId) return std::int64_t{*info.timeStorageId} * 2;
    if (info.dataStorageId) return std::int64_t{*info.dataStorageId} * 2 + 1;
    return std::nullopt;
  }

  // A blob counts as a number that depends on its bytes.
  Envelope anyEnvelope(int id, double from, double to, std::size_t columns, std::uint64_t element) {
    SignalRows& rows = rowsOf(id);
    rows.open();
    const auto makeOwnRows = [this, id] {
      constexpr std::size_t kFiles = 2;
      const auto files = std::make_shared<ContentFiles>(folder_, options_.checks, kFiles);
      files->describe(snapshot_.info, snapshot_.isLive());
      return makeRows(id, files);
    };
    const bool hasTimes = rows.hasTimes() && rows.timeCount() > 0;
    SignalNumbers numbers(rows, hasTimes ? &indexOf(rows) : nullptr, element, makeOwnRows);
    const SignalInfo& info = rows.signal();
    return envelopes_.envelope({timeKey(info), info.dataStorageId, element}, numbers, from, to,
                               columns);
  }

  static TimeIndex::Read reading(SignalRows& rows) {
    return [&rows](std::uint64_t first, std::uint64_t count, double* out) {
      rows.readTimes(first, count, out);
    };
  }

  TimeIndex& indexOf(SignalRows& rows) {
    TimeIndex& index = indexes_[*timeKey(rows.signal())];
    rows.extend(index, reading(rows));
    return index;
  }

  void copyTimes(SignalRows& rows, const RowRange& range, double* out) {
    constexpr std::uint64_t kMostKept = 1'048'576;
    const std::int64_t key = *timeKey(rows.signal());
    const std::uint64_t count = range.to - range.from;
    if (count > kMostKept) return rows.readTimes(range.from, count, out);
    if (knownTimes_.key != key || !(knownTimes_.rows == range) || knownTimes_.times.empty()) {
      knownTimes_.times.clear();
      knownTimes_.times.resize(static_cast<std::size_t>(count));
      try {
        rows.readTimes(range.from, count, knownTimes_.times.data());
      } catch (...) {
        knownTimes_.times.clear();
        throw;
      }
      knownTimes_.key = key;
      knownTimes_.rows = range;
    }
    std::memcpy(out, knownTimes_.times.data(), knownTimes_.times.size() * sizeof(double));
  }

  std::shared_ptr<const OpenFolder> folder_;
  ReaderOptions options_;
  std::shared_ptr<ContentFiles> files_;
  Snapshot snapshot_;
  std::unordered_map<int, std::size_t> places_;  // in signals(), by id
  std::unique_ptr<SignalNames> names_;
  std::unordered_map<int, std::vector<int>> sampleUsers_;         // signals by storage id
  std::unordered_map<std::int64_t, std::vector<int>> timeUsers_;  // signals by timeKey()
  std::unordered_map<std::int64_t, TimeIndex> indexes_;           // by timeKey()
  EnvelopeCache envelopes_;
  KnownTimes knownTimes_;
  std::optional<SignalRows> last_;
};

RecordingReader::RecordingReader(const Path& folder, const ReaderOptions& options)
    : impl_(std::make_unique<Impl>(folder, options)) {}
RecordingReader::~RecordingReader() = default;
RecordingReader::RecordingReader(RecordingReader&&) noexcept = default;
RecordingReader& RecordingReader::operator=(RecordingReader&&) noexcept = default;

RecordingState RecordingReader::state() const { return impl_->state(); }
bool RecordingReader::refresh() { return impl_->refresh(); }
RecordingInfo RecordingReader::info() const { return impl_->info(); }

const Attributes& RecordingReader::attributes() const { return impl_->attributes(); }

const std::vector<SignalInfo>& RecordingReader::signals() const { return impl_->signals(); }
const SignalInfo& RecordingReader::signal(int id) const { return impl_->signal(id); }
int RecordingReader::idOf(const std::string& name) const { return impl_->idOf(name); }
std::vector<int> RecordingReader::matching(const std::string& pattern) const {
  return impl_->matching(pattern);
}
const std::vector<int>& RecordingReader::withSameSamples(int id) const {
  return impl_->withSameSamples(id);
}
const std::vector<int>& RecordingReader::withSameTimes(int id) const {
  return impl_->withSameTimes(id);
}

std::uint64_t RecordingReader::sampleCount(int id) const { return impl_->rowsOf(id).sampleCount(); }
std::uint64_t RecordingReader::timeCount(int id) const { return impl_->rowsOf(id).timeCount(); }
std::uint64_t RecordingReader::pairCount(int id) const { return impl_->rowsOf(id).pairCount(); }
std::optional<TimeSpan> RecordingReader::timeSpan(int id) const { return impl_->timeSpan(id); }
std::size_t RecordingReader::elementBytes(int id) const { return impl_->rowsOf(id).elementBytes(); }
std::uint64_t RecordingReader::elementsPerSample(int id) const {
  return impl_->rowsOf(id).elementsPerSample();
}

std::vector<double> RecordingReader::times(int id, const RowRange& rows) const {
  return impl_->times(id, rows);
}
std::uint64_t RecordingReader::readTimes(int id, const RowRange& rows, double* out) const {
  return impl_->readTimes(id, rows, out);
}
std::uint64_t RecordingReader::readElements(int id, const RowRange& rows, void* out,
                                            std::size_t size) const {
  return impl_->readElements(id, rows, out, size);
}
SampleRows RecordingReader::read(int id, const RowRange& rows) const {
  return impl_->read(id, rows);
}
SampleBlocks RecordingReader::blocks(int id, const RowRange& rows, std::size_t maxRows) const {
  return impl_->blocks(id, rows, maxRows);
}
void RecordingReader::exportTo(int id, ArrowArrayStream* out, const RowRange& rows,
                               std::size_t maxRows) const {
  impl_->exportTo(id, rows, out, maxRows);
}
std::vector<RowRange> RecordingReader::rowsBetween(int id, double from, double to) const {
  return impl_->rowsBetween(id, from, to);
}
Envelope RecordingReader::envelope(int id, double from, double to, std::size_t columns,
                                   std::uint64_t element) const {
  return impl_->envelope(id, from, to, columns, element);
}
std::vector<ValueSpan> RecordingReader::spans(int id, double from, double to, std::size_t columns,
                                              std::uint64_t element) const {
  return impl_->spans(id, from, to, columns, element);
}

}  // namespace kyr::recording
