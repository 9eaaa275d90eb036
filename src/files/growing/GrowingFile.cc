#include "files/growing/GrowingFile.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/ParquetTail.h"
#include "files/growing/BatchRecord.h"
#include "kyr/platform/CryptoService.h"

namespace kyr::parquet {

namespace {

// A footer is due if it takes at most this part of the bytes that were appended since the last
// footer, or if this part of the batches came since then. More footers cost time, fewer leave the
// file unpublished for longer.
constexpr std::uint64_t kFooterShare = 16;
constexpr std::uint64_t kBatchShare = 4;
constexpr std::size_t kPieceBytes = std::size_t{1} << 20U;

std::uint64_t randomNumber() {
  std::uint64_t number = 0;
  const auto bytes = CryptoService::randomBytes(sizeof(number));
  std::memcpy(&number, bytes.data(), sizeof(number));
  return number;
}

// Puts the name of the file before what Parquet says about it.
template <typename Operation>
auto naming(const std::filesystem::path& path, Operation&& operation) {
  try {
    return operation();
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(fmt::format("{}: {}", path.string(), error.what()));
  }
}

std::uint64_t sizeOf(const std::vector<std::string_view>& pieces) {
  return std::accumulate(
      pieces.begin(), pieces.end(), std::uint64_t{0},
      [](std::uint64_t sum, std::string_view piece) { return sum + piece.size(); });
}

}  // namespace

std::unique_ptr<GrowingFile> GrowingFile::create(
    const std::filesystem::path& path, const std::shared_ptr<::arrow::Schema>& schema,
    const std::shared_ptr<::parquet::WriterProperties>& properties,
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  const FileLayout layout = naming(path, [&] { return FileLayout(*schema, properties, {}); });
  return create(path, layout, keyValues);
}

std::unique_ptr<GrowingFile> GrowingFile::create(
    const std::filesystem::path& path, const FileLayout& layout,
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  auto file = std::make_shared<DiskFile>(path, DiskFile::Mode::createNew);
  try {
    return createIn(std::move(file), layout, keyValues);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    throw;
  }
}

std::unique_ptr<GrowingFile> GrowingFile::createIn(
    std::shared_ptr<DiskFile> file, const FileLayout& layout,
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  BatchEncoder encoder(layout);
  const EncodedBatch opening = naming(file->path(), [&] { return encoder.encodeEmpty(keyValues); });
  return std::unique_ptr<GrowingFile>(
      new GrowingFile(std::move(file), std::move(encoder), opening));
}

GrowingFile::GrowingFile(std::shared_ptr<DiskFile> file, BatchEncoder encoder,
                         const EncodedBatch& opening)
    : file_(std::move(file)),
      encoder_(std::move(encoder)),
      records_(std::make_shared<GrowingRecords>(
          GrowingRecords{BatchIndex(opening.metadata()), randomNumber(), 0, kParquetMagic.size()})),
      fileEnd_(records_->end),
      path_(file_->path()) {
  file_->writeAt(0, {kParquetMagic});
  writeRecord(opening, 0, /*publish=*/true);
}

void GrowingFile::requireGrowing() const {
  if (finished_) throw std::logic_error(path_.string() + ": the file is finished");
}

void GrowingFile::checkBatch(const ::arrow::Table& table) const {
  if (!table.schema()->Equals(encoder_.schema(), /*check_metadata=*/false)) {
    throw std::invalid_argument(fmt::format("{}: a batch of the schema\n{}\nin a file of\n{}",
                                            path_.string(), table.schema()->ToString(),
                                            encoder_.schema().ToString()));
  }
  if (table.num_rows() > maxRows()) {
    throw std::invalid_argument(fmt::format("{}: a batch of {} rows, at most {} are possible",
                                            path_.string(), table.num_rows(), maxRows()));
  }
}

void GrowingFile::appendBatch(const ::arrow::Table& table, bool publish,
                              const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  requireGrowing();
  checkBatch(table);
  if (table.num_rows() == 0) {
    if (publish) this->publish();
    return;
  }
  const EncodedBatch batch = naming(path_, [&] {
    EncodedBatch encoded = encoder_.encode(table, records_->end + kBatchHeaderBytes, keyValues);
    records_->index.append(encoded.metadata());
    return encoded;
  });
  try {
    writeRecord(batch, static_cast<std::uint64_t>(table.num_rows()), publish);
  } catch (...) {
    records_->index.removeLast();
    throw;
  }
}

void GrowingFile::writeRecord(const EncodedBatch& batch, std::uint64_t rows, bool publish) {
  RecordHeader header;
  header.fileId = records_->fileId;
  header.offset = records_->end;
  header.index = records_->count;
  header.rows = rows;
  header.rowGroupBytes = batch.rowGroupBytes();
  header.metadataBytes = batch.metadata().size();
  const std::string head = encodeHeader(header, batch.hash());

  const std::uint64_t pending = bytesSinceFooter_ + header.end() - header.offset;
  const bool isDue = pending / kFooterShare >= records_->index.metadataBound() ||
                     (records_->count - recordsAtFooter_) * kBatchShare > records_->count;
  const bool withFooter = publish || (publishesBatches_ && isDue);
  const std::string foot =
      withFooter ? footerOf(records_->index, records_->fileId, header.end(), records_->count + 1)
                 : std::string();
  std::vector<std::string_view> pieces = batch.payload();
  pieces.insert(pieces.begin(), head);
  pieces.push_back(foot);
  replaceTail(pieces);
  ++records_->count;
  records_->end = header.end();
  bytesSinceFooter_ = pending;
  if (withFooter) noteFooter(foot.size());
}

void GrowingFile::replaceTail(const std::vector<std::string_view>& pieces) {
  const std::uint64_t end = records_->end + sizeOf(pieces);
  records_->isPublished = false;
  fileEnd_ = std::max(fileEnd_, end);
  try {
    file_->writeAt(records_->end, pieces);
    if (fileEnd_ > end) file_->truncate(end);
    fileEnd_ = end;
  } catch (...) {
    // If this fails as well, the next call or a recovery overwrites or cuts what lies behind the
    // records.
    if (file_->tryTruncate(records_->end)) fileEnd_ = records_->end;
    throw;
  }
}

void GrowingFile::publish() {
  requireGrowing();
  file_->requireName();
  if (records_->isPublished) return;
  const std::string foot = records_->footer();
  replaceTail({foot});
  noteFooter(foot.size());
}

void GrowingFile::noteFooter(std::size_t bytes) {
  records_->isPublished = true;
  bytesSinceFooter_ = 0;
  recordsAtFooter_ = records_->count;
  footerBytes_ += bytes;
}

void GrowingFile::sync() {
  requireGrowing();
  if (syncFailed_) rewriteUnsynced();
  syncFailed_ = true;
  file_->syncData();
  syncFailed_ = false;
  syncedEnd_ = records_->end;
}

void GrowingFile::rewriteUnsynced() {
  // The system may have dropped what it could not write. What it reads then must not pass for the
  // batches.
  std::uint64_t at = std::max<std::uint64_t>(syncedEnd_, kParquetMagic.size());
  while (at < records_->end) {
    const auto record = readRecord(*file_, RecordKind::batch, at, records_->end);
    if (!record) throw std::runtime_error(path_.string() + ": batches were lost before a sync");
    at = record->header.end();
  }
  std::string piece;
  for (std::uint64_t from = syncedEnd_; from < records_->end; from += piece.size()) {
    piece.resize(std::min<std::uint64_t>(kPieceBytes, records_->end - from));
    file_->readAt(from, piece.data(), piece.size());
    file_->writeAt(from, {piece});
  }
  if (std::exchange(records_->isPublished, false)) publish();
}

void GrowingFile::finish() {
  if (finished_) return;
  publish();
  if (syncFailed_) rewriteUnsynced();
  suspend();
  finished_ = true;
  input_.reset();
  file_.reset();
}

void GrowingFile::suspend() {
  if (!file_) return;
  try {
    file_->suspend();
  } catch (...) {
    syncFailed_ = true;  // a disk may find out late that it is full
    throw;
  }
}

std::uint64_t GrowingFile::batchRows(std::size_t batch) const {
  if (batch >= batchCount()) {
    throw std::out_of_range(fmt::format("{}: batch {} is asked for, there are {}", path_.string(),
                                        batch, batchCount()));
  }
  return records_->index.rowStart(batch + 1) - records_->index.rowStart(batch);
}

std::shared_ptr<::arrow::Table> GrowingFile::read(std::uint64_t first, std::uint64_t count,
                                                  const std::vector<std::string>& columns) {
  if (!file_) file_ = std::make_shared<DiskFile>(path_, DiskFile::Mode::readOnly);
  if (!input_) input_ = std::make_unique<InputFile>(file_, records_, BatchChecks::no);
  return input_->read(first, count, columns);
}

std::shared_ptr<const ::arrow::KeyValueMetadata> GrowingFile::keyValueMetadata() const {
  return parseMetadata(records_->index.metadata(0, 0))->key_value_metadata();
}

}  // namespace kyr::parquet
