#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "files/InputFile.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

bool isGrowingFile(const ByteSource& file) {
  RecordLimits limits;
  limits.end = file.size();
  limits.wantedRows = 0;
  return recordsFromStart(file, limits).has_value();
}

namespace {

std::optional<GrowingRecords> growingRecords(const ByteSource& file, std::uint64_t rows,
                                             bool checks) {
  // A file that is being written may get another end between two looks at it.
  constexpr int kAttempts = 4;
  RecordLimits limits;
  for (int attempt = 0; attempt < kAttempts && file.size() != limits.end; ++attempt) {
    limits.end = file.size();
    if (auto records = recordsFromFooter(file, limits.end)) return records;
  }
  // Batch records never change, so that those that are whole can be relied on.
  limits.end = file.size();
  limits.wantedRows = rows;
  limits.checks = checks;
  return recordsFromStart(file, limits);
}

std::shared_ptr<InputFile> opened(std::shared_ptr<const ByteSource> file,
                                  std::optional<GrowingRecords> records, BatchChecks checks) {
  if (!records) throw std::runtime_error(file->path().string() + ": no growing file");
  return std::make_shared<InputFile>(std::move(file),
                                     std::make_shared<GrowingRecords>(*std::move(records)), checks);
}

}  // namespace

std::shared_ptr<InputFile> openGrowingFile(std::shared_ptr<const ByteSource> file,
                                           std::uint64_t rows, BatchChecks checks) {
  auto records = growingRecords(*file, rows, /*checks=*/false);
  return opened(std::move(file), std::move(records), checks);
}

std::shared_ptr<InputFile> openGrowingFile(const std::filesystem::path& path) {
  auto file = std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly);
  auto records = growingRecords(*file, RecordLimits::kAll, /*checks=*/true);
  return opened(std::move(file), std::move(records), BatchChecks::no);
}

std::shared_ptr<InputFile> openAnyFile(std::shared_ptr<const ByteSource> file, std::uint64_t rows,
                                       BatchChecks checks) {
  auto records = growingRecords(*file, rows, /*checks=*/false);
  if (!records) return std::make_shared<InputFile>(std::move(file));
  return opened(std::move(file), std::move(records), checks);
}

}  // namespace kyr::parquet
