#include "safe/SharedStore.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>
#include <parquet/properties.h>
#include <sys/resource.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/BatchSize.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "platform/DiskFile.h"
#include "safe/SharedStream.h"

namespace kyr::parquet {

void requireWritable(::arrow::Compression::type codec) {
  switch (codec) {
    case ::arrow::Compression::UNCOMPRESSED:
    case ::arrow::Compression::SNAPPY:
    case ::arrow::Compression::GZIP:
    case ::arrow::Compression::BROTLI:
    case ::arrow::Compression::ZSTD:
    case ::arrow::Compression::LZ4:
    case ::arrow::Compression::LZ4_HADOOP:
      return;
    default:
      throw std::invalid_argument(fmt::format("Parquet files cannot be written with codec {} ({})",
                                              static_cast<int>(codec),
                                              ::arrow::util::Codec::GetCodecAsString(codec)));
  }
}

SharedStore::SharedStore(Path directory, const SafeStorage& options, std::shared_ptr<int> nextId)
    : directory_(std::move(directory)), options_(options), nextId_(std::move(nextId)) {
  if (options.batchRows == 0 || options.batchBytes == 0) {
    throw std::invalid_argument("a batch without rows or bytes: both must be positive");
  }
  // A part of what the process may have, the rest being the host's.
  constexpr int kMost = 128;
  struct rlimit limit {};
  const bool isKnown = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kMost * 8;
  maxOpenFiles_ = isKnown ? static_cast<int>(limit.rlim_cur / 8) : kMost;
}

std::filesystem::path SharedStore::fileOf(int id) const {
  return directory_.toFilesystem() / std::to_string(id);
}

int SharedStore::newId() {
  if (*nextId_ == std::numeric_limits<int>::max()) {
    throw std::runtime_error(directory_.toNarrow() + ": there are no storage ids left");
  }
  return (*nextId_)++;
}

void SharedStore::reserve(int id) {
  if (id < std::numeric_limits<int>::max()) *nextId_ = std::max(*nextId_, id + 1);
}

std::shared_ptr<::parquet::WriterProperties> SharedStore::properties(
    const Compression& compression) const {
  auto properties = compression ? writerOptions_.buildWriterProperties(*compression)
                                : writerOptions_.buildWriterProperties();
  requireWritable(properties->default_column_properties().compression());
  const ::arrow::Status status = checkBatchSize(*properties);
  if (!status.ok()) throw std::invalid_argument(status.message());
  return properties;
}

EncodingChoice SharedStore::choice(const Compression& compression) const {
  if (options_.encodings == SafeStorage::Encodings::options) return {};
  const bool isCodecOpen =
      !compression &&
      writerOptions_.buildWriterProperties()->default_column_properties().compression() ==
          ::arrow::Compression::UNCOMPRESSED;
  return {true, isCodecOpen, options_.encodings == SafeStorage::Encodings::smallest};
}

Forks& SharedStore::roots(const std::shared_ptr<::arrow::Schema>& schema) {
  Forks*& known = rootsOf_[schema];
  if (known == nullptr) known = &roots_[schema->ToString()];
  return *known;
}

const SampleSchema& SharedStore::sampleSchema(KYRSignalCategory category, KYRSignalDataType type) {
  const auto key = std::make_pair(category, type);
  const auto known = sampleSchemas_.find(key);
  if (known != sampleSchemas_.end()) return known->second;
  SampleSchema made(
      schemaBuilder::getSchema(category, type, /*includeTime=*/false, columnNames::data));
  return sampleSchemas_.emplace(key, std::move(made)).first->second;
}

PackedRows SharedStore::takePacked(int id) {
  const auto found = packed_.find(id);
  if (found == packed_.end()) return {};
  PackedRows rows = std::move(found->second);
  packed_.erase(found);
  return rows;
}

std::shared_ptr<SharedStream> SharedStore::streamOf(int id) const {
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : found->second.lock();
}

void SharedStore::note(int id, const std::shared_ptr<SharedStream>& stream) {
  streams_[id] = stream;
}

const FileLayout& SharedStore::layout(const std::shared_ptr<::arrow::Schema>& schema,
                                      const Compression& compression) {
  for (const KnownLayout& known : layouts_) {
    if (known.schema == schema && known.compression == compression) return known.layout;
  }
  layouts_.push_front(
      {schema, compression, FileLayout(*schema, properties(compression), choice(compression))});
  if (layouts_.size() > kMaxStored) layouts_.pop_back();
  return layouts_.front().layout;
}

void SharedStore::forget(int id) {
  streams_.erase(id);
  stored_.remove_if([id](const auto& entry) { return entry.first == id; });
}

std::shared_ptr<StoredRows> SharedStore::stored(int id) {
  const auto found = std::find_if(stored_.begin(), stored_.end(),
                                  [id](const auto& entry) { return entry.first == id; });
  if (found != stored_.end()) {
    stored_.splice(stored_.begin(), stored_, found);
  } else {
    stored_.emplace_front(id, std::make_shared<StoredRows>(fileOf(id)));
    if (stored_.size() > kMaxStored) stored_.pop_back();
  }
  return stored_.front().second;
}

void SharedStore::noteWrite(bool isNewFile) {
  hasNewFiles_ |= isNewFile;
  if (options_.sync != SafeStorage::Sync::seconds) return;
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - lastSync_;
  if (passed.count() >= options_.syncSeconds) sync();
}

void SharedStore::sync() {
  forEachStream([](SharedStream& stream) { stream.sync(); });
  if (hasNewFiles_) syncDirectoryOf(fileOf(0));
  hasNewFiles_ = false;
  lastSync_ = std::chrono::steady_clock::now();
}

void SharedStore::removeFile(int id) noexcept {
  if (keepsFiles_) return;
  if (options_.keepsFiles) {
    condemned_.push_back(id);
    return;
  }
  std::error_code ignored;
  std::filesystem::remove(fileOf(id), ignored);
}

void SharedStore::noteFlush() noexcept {
  std::error_code ignored;
  for (const int id : condemnedBefore_) std::filesystem::remove(fileOf(id), ignored);
  condemnedBefore_ = std::move(condemned_);
  condemned_.clear();
}

void SharedStore::forEachStream(const std::function<void(SharedStream&)>& visit) const {
  // A stream that makes its file may take another id meanwhile.
  std::vector<std::shared_ptr<SharedStream>> streams;
  for (const auto& [id, weak] : streams_) {
    if (auto stream = weak.lock()) streams.push_back(std::move(stream));
  }
  for (const auto& stream : streams) visit(*stream);
}

}  // namespace kyr::parquet
