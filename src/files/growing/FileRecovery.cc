#include "files/growing/FileRecovery.h"

#include <optional>
#include <string>
#include <string_view>

#include "files/ParquetTail.h"
#include "files/growing/GrowingRecords.h"
#include "platform/DiskFile.h"
#include "platform/FileLinks.h"

namespace kyr::parquet {

namespace {

bool holds(const DiskFile& file, std::uint64_t offset, std::string_view bytes) {
  std::string there(bytes.size(), '\0');
  there.resize(file.readAt(offset, there.data(), there.size()));
  return there == bytes;
}

// Whether a batch record begins behind \p from. Right there may be the beginning of a torn one.
bool holdsRecordsBehind(const std::filesystem::path& path, std::uint64_t from, std::uint64_t size) {
  constexpr std::string_view kRecordMagic = "\x8FKYRBAT\n";
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20U;
  const DiskFile file(path, DiskFile::Mode::readOnly);
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

}  // namespace

RecoveryReport recoverFile(const std::filesystem::path& path, std::uint64_t maxRows,
                           const std::filesystem::path& aside) {
  RecoveryReport report;
  std::uint64_t size = 0;
  std::optional<GrowingRecords> records;
  std::string footer;
  {
    const DiskFile file(path, DiskFile::Mode::readOnly);
    size = file.size();
    RecordLimits limits;
    limits.end = size;
    limits.maxRows = maxRows;
    records = recordsFromStart(file, limits);
    if (!records) return report;
    footer = records->footer();
    const std::uint64_t end = records->end;
    report.wasComplete =
        size - end == footer.size() && holds(file, end, footer) && holds(file, 0, kParquetMagic);
  }
  report.isComplete = true;
  report.rowsKept = records->index.rows();
  report.batchesKept = records->index.batches();
  if (report.wasComplete) return report;
  if (!aside.empty() && holdsRecordsBehind(path, records->end, size)) {
    std::filesystem::create_directories(aside.parent_path());
    std::filesystem::copy_file(path, aside, std::filesystem::copy_options::overwrite_existing);
  }
  copyIfLinked(path);
  DiskFile file(path, DiskFile::Mode::readWrite);
  file.truncate(records->end);
  file.writeAt(0, {kParquetMagic});
  file.writeAt(records->end, {footer});
  file.syncAll();
  file.close();
  report.bytesCut = size - records->end;
  return report;
}

}  // namespace kyr::parquet
