#include "safe/FinishedFile.h"

#include <arrow/table.h>
#include <parquet/exception.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "files/ParquetTail.h"

namespace kyr::parquet {

FinishedFile::FinishedFile(std::shared_ptr<const DiskFile> file, std::int64_t now)
    : file_(std::move(file)),
      state_(file_->state()),
      showsChanges_(state_.showsEveryChangeSince(now)) {}

FinishedFile::RowAccess& FinishedFile::rowAccess() {
  if (rowAccess_) return *rowAccess_;
  const auto metadata = readSerializedMetadata(*file_);
  if (!metadata) {
    throw std::runtime_error(file_->path().string() + ": is no complete Parquet file");
  }
  try {
    return rowAccess_.emplace(RowAccess{BatchIndex(*metadata), RowReader(file_)});
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(file_->path().string() + ": " + error.what());
  }
}

::arrow::Compression::type FinishedFile::codec() {
  const BatchIndex& index = rowAccess().index;
  if (index.batches() == 0) return ::arrow::Compression::UNCOMPRESSED;
  return parseMetadata(index.metadata(0, 1))->RowGroup(0)->ColumnChunk(0)->compression();
}

std::shared_ptr<::arrow::Table> FinishedFile::read(std::uint64_t first, std::uint64_t count) {
  RowAccess& access = rowAccess();
  return access.reader.read(access.index, first, count, std::nullopt);
}

void FinishedFile::copyTo(const std::filesystem::path& path, bool sync) const {
  constexpr std::size_t kPieceBytes = std::size_t{256} << 10U;
  DiskFile copy(path, DiskFile::Mode::createNew);
  try {
    std::vector<char> piece(std::min<std::uint64_t>(kPieceBytes, file_->size()));
    std::uint64_t at = 0;
    while (const std::size_t size = file_->readAt(at, piece.data(), piece.size())) {
      copy.writeAt(at, {std::string_view(piece.data(), size)});
      at += size;
    }
    if (sync) copy.syncData();
    copy.close();
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    throw;
  }
}

}  // namespace kyr::parquet
