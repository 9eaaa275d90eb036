#include "files/growing/BatchEncoder.h"

#include <arrow/api.h>
#include <parquet/exception.h>

#include <stdexcept>
#include <utility>

#include "files/FileSink.h"

namespace kyr::parquet {

namespace {

constexpr std::size_t kMargin = 4096;
// Bytes that are copied and then hashed. They stay in the nearest cache.
constexpr std::size_t kPieceBytes = 4096;

// The bytes of a batch, and the hash of those that a record holds.
struct BatchBytes {
  explicit BatchBytes(std::size_t expected) { file.reserve(expected); }

  void add(std::string_view bytes) {
    while (!bytes.empty()) {
      const std::string_view piece = bytes.substr(0, kPieceBytes);
      file += piece;
      hashNew();
      bytes.remove_prefix(piece.size());
    }
  }

  std::string file;
  RecordHash hash;

 private:
  // Leaves out the magic at the start and what may be the tail.
  void hashNew() {
    if (file.size() < hashed_ + kParquetTailBytes) return;
    const std::size_t end = file.size() - kParquetTailBytes;
    hash.add(std::string_view(file).substr(hashed_, end - hashed_));
    hashed_ = end;
  }

  std::size_t hashed_ = kParquetMagic.size();
};

// What \p write writes to a sink, as a batch whose row group is to stand at \p offset of a file.
template <typename Write>
EncodedBatch written(std::uint64_t offset, std::size_t expected, Write&& write) {
  BatchBytes bytes(expected);
  write(std::make_shared<FileSink>(
      [&bytes](std::string_view first, std::string_view second) {
        bytes.add(first);
        bytes.add(second);
      },
      offset));
  return {std::move(bytes.file), bytes.hash};
}

}  // namespace

EncodedBatch::EncodedBatch(std::string file, const RecordHash& hash)
    : file_(std::move(file)), hash_(hash) {
  const std::string_view all = file_;
  const std::size_t tailAt = all.size() - kParquetTailBytes;
  if (all.substr(tailAt + 4) != kParquetMagic) {
    throw std::invalid_argument("growing files cannot be encrypted");
  }
  metadataBytes_ = metadataLength(all.substr(tailAt));
}

std::string_view EncodedBatch::payload() const {
  return std::string_view(file_).substr(kParquetMagic.size(),
                                        file_.size() - kParquetMagic.size() - kParquetTailBytes);
}

EncodedBatch BatchEncoder::encodeEmpty(
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) const {
  return written(0, 0, [&](const auto& sink) { layout_.write(sink, keyValues, {}); });
}

EncodedBatch BatchEncoder::encode(
    const ::arrow::Table& table, std::uint64_t offset,
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  if (encodingUses_ == 0) {
    encoding_ = layout_.encodingFor(table);
    encodingUses_ = kEncodingUses;
  }
  --encodingUses_;
  EncodedBatch batch =
      written(offset, lastBytes_ + lastBytes_ / 8 + kMargin,
              [&](const auto& sink) { layout_.write(sink, keyValues, {&table}, encoding_); });
  lastBytes_ = batch.payload().size();
  return batch;
}

}  // namespace kyr::parquet
