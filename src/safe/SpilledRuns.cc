#include "safe/SpilledRuns.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "files/InputFile.h"
#include "files/RowGroupCache.h"
#include "files/growing/GrowingRecords.h"
#include "platform/DiskFile.h"
#include "safe/SharedStore.h"

namespace kyr::parquet {

SpilledFile::SpilledFile(SharedStore& store, std::filesystem::path path, std::uint64_t bytes,
                         int level)
    : store_(store),
      path_(std::move(path)),
      bytes_(bytes),
      level_(level),
      acknowledged_(store.timesAcknowledged()),
      file_(std::make_shared<DiskFile>(path_, DiskFile::Mode::readOnly)),
      content_(openAnyFile(file_, RecordLimits::kAll, BatchChecks::yes), ContentFile::Kind::pack,
               std::make_shared<RowGroupCache>()) {}

SpilledFile::~SpilledFile() {
  if (store_.keepsAllFiles()) return;
  if (store_.timesAcknowledged() == acknowledged_) {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  } else {
    store_.removeLater(path_);
  }
}

void SpilledFile::release() {
  content_.forgetGroups();
  if (!store_.openFiles().mayGrowingStayOpen()) file_->suspend();
}

std::size_t SpilledRuns::bytes() const {
  std::size_t sum = 0;
  for (const SpilledRun& run : runs_) sum += run.bytes;
  return sum;
}

void SpilledRuns::add(SpilledRun run) {
  const auto begin = std::find_if(runs_.begin(), runs_.end(), [&](const SpilledRun& there) {
    return there.first >= run.first;
  });
  const auto end = std::find_if(begin, runs_.end(),
                                [&](const SpilledRun& there) { return there.end() > run.end(); });
  runs_.insert(runs_.erase(begin, end), std::move(run));
}

void SpilledRuns::dropBefore(std::uint64_t row) {
  const auto kept = std::find_if(runs_.begin(), runs_.end(),
                                 [row](const SpilledRun& run) { return run.end() > row; });
  runs_.erase(runs_.begin(), kept);
  if (runs_.empty() || runs_.front().first >= row) return;
  SpilledRun& front = runs_.front();
  const std::uint64_t dropped = row - front.first;
  front.bytes -= static_cast<std::size_t>(front.bytes / front.count * dropped);
  front.first += dropped;
  front.row += dropped;
  front.count -= dropped;
}

HeldRows SpilledRuns::read(std::uint64_t from, std::uint64_t to) const {
  std::vector<ContentRun> runs;
  for (const SpilledRun& run : runs_) {
    if (run.end() <= from || run.first >= to) continue;
    runs.push_back({run.first, run.count, run.row, {run.file, &run.file->content()}});
  }
  ContentReader reader(runs.front().pack, storageId(), 0, 0);
  reader.setRuns(storageId(), std::move(runs));
  return reader.read(from, to - from);
}

}  // namespace kyr::parquet
