#include "files/growing/FileRecovery.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "files/InputFile.h"
#include "files/ParquetTail.h"
#include "files/growing/GrowingRecords.h"

namespace kyr::parquet {

namespace {

bool holds(const ByteSource& file, std::uint64_t offset, std::string_view bytes) {
  std::string there(bytes.size(), '\0');
  there.resize(file.readAt(offset, there.data(), there.size()));
  return there == bytes;
}

// Whether a batch record begins behind \p from. Right there may be the beginning of a torn one.
bool holdsRecordsBehind(const ByteSource& file, std::uint64_t from) {
  constexpr std::string_view kRecordMagic = "\x8FKYRBAT\n";
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20U;
  const std::uint64_t size = file.size();
  std::string piece;
  for (std::uint64_t at = from + 1; at + kRecordMagic.size() <= size; at += kPieceBytes) {
    piece.resize(kPieceBytes + kRecordMagic.size() - 1);
    piece.resize(file.readAt(at, piece.data(), piece.size()));
    for (std::size_t found = piece.find(kRecordMagic); found != std::string::npos;
         found = piece.find(kRecordMagic, found + 1)) {
      // A footer has the same magic.
      std::uint32_t kind = 0;
      file.readAt(at + found + 12, &kind, sizeof(kind));
      if (kind == static_cast<std::uint32_t>(RecordKind::batch)) return true;
    }
  }
  return false;
}

struct Inspection {
  RecoveryReport report;
  std::optional<GrowingRecords> records;  // of a file that can be made complete
  std::string footer;                     // that belongs behind them
  std::uint64_t size = 0;
};

Inspection inspect(const std::shared_ptr<const DiskFile>& file, std::uint64_t maxRows) {
  Inspection found;
  RecoveryReport& report = found.report;
  found.size = file->size();
  RecordLimits limits;
  limits.end = found.size;
  limits.maxRows = maxRows;
  found.records = recordsFromStart(*file, limits);
  if (!found.records) {
    auto published = recordsFromFooter(*file, found.size);
    if (!published) {
      report.losesBatches = holdsRecordsBehind(*file, kParquetMagic.size());
      return found;
    }
    report.hasFooter = true;
    const auto batches = std::make_shared<GrowingRecords>(*std::move(published));
    report.rowsKept = InputFile(file, batches, BatchChecks::yes).soundRows();
    return found;
  }
  const GrowingRecords& records = *found.records;
  found.footer = records.footer();
  report.isComplete = true;
  report.rowsKept = records.index.rows();
  report.batchesKept = records.index.batches();
  report.wasComplete = found.size - records.end == found.footer.size() &&
                       holds(*file, records.end, found.footer) && holds(*file, 0, kParquetMagic);
  if (report.wasComplete) return found;
  report.bytesCut = found.size - records.end;
  report.losesBatches = holdsRecordsBehind(*file, records.end);
  return found;
}

}  // namespace

RecoveryReport inspectFile(const Folder& folder, const std::string& name) {
  return inspect(folder.open(name), std::numeric_limits<std::uint64_t>::max()).report;
}

RecoveryReport recoverFile(const Folder& folder, const std::string& name, std::uint64_t maxRows) {
  const Inspection found = inspect(folder.open(name), maxRows);
  if (!found.records || found.report.wasComplete) return found.report;
  copyIfLinked(folder, name);
  const auto file = folder.open(name, DiskFile::Mode::readWrite);
  file->truncate(found.records->end);
  file->writeAt(0, {kParquetMagic});
  file->writeAt(found.records->end, {found.footer});
  file->syncAll();
  file->close();
  return found.report;
}

}  // namespace kyr::parquet
