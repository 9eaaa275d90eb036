#include "files/growing/BatchEncoder.h"

#include <arrow/api.h>
#include <arrow/io/interfaces.h>
#include <parquet/exception.h>

#include <stdexcept>
#include <utility>

namespace kyr::parquet {

namespace {

constexpr std::size_t kMargin = 4096;
// Copied and hashed at once: small enough for the nearest cache.
constexpr std::size_t kPieceBytes = 4096;

// Keeps what is written to it. A Parquet writer only starts at position 0; behind its leading magic
// the sink says that it stands at the row group's place in the file that the batch is made for.
class BatchSink final : public ::arrow::io::OutputStream {
 public:
  BatchSink(std::uint64_t offset, std::size_t expected) : offset_(offset) {
    bytes_.reserve(expected);
  }

  ::arrow::Status Write(const void* data, std::int64_t size) override {
    std::string_view rest(static_cast<const char*>(data), static_cast<std::size_t>(size));
    while (!rest.empty()) {
      const std::string_view piece = rest.substr(0, kPieceBytes);
      bytes_ += piece;
      hashTo(bytes_.size());
      rest.remove_prefix(piece.size());
    }
    return ::arrow::Status::OK();
  }
  ::arrow::Result<std::int64_t> Tell() const override {
    if (bytes_.empty()) return 0;
    return static_cast<std::int64_t>(offset_ + bytes_.size() - kParquetMagic.size());
  }
  ::arrow::Status Close() override {
    closed_ = true;
    return ::arrow::Status::OK();
  }
  bool closed() const override { return closed_; }

  EncodedBatch take() { return {std::move(bytes_), hash_}; }

 private:
  // All but the magic at the start and what may be the tail.
  void hashTo(std::size_t size) {
    if (size < hashed_ + kParquetTailBytes) return;
    hash_.add(std::string_view(bytes_).substr(hashed_, size - kParquetTailBytes - hashed_));
    hashed_ = size - kParquetTailBytes;
  }

  std::uint64_t offset_;
  std::string bytes_;
  RecordHash hash_;
  std::size_t hashed_ = kParquetMagic.size();
  bool closed_ = false;
};

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
  const auto sink = std::make_shared<BatchSink>(0, 0);
  layout_.write(sink, keyValues, {});
  return sink->take();
}

EncodedBatch BatchEncoder::encode(const ::arrow::Table& table, std::uint64_t offset) {
  if (encodingUses_ == 0) {
    encoding_ = layout_.encodingFor(table);
    encodingUses_ = kEncodingUses;
  }
  --encodingUses_;
  const auto sink = std::make_shared<BatchSink>(offset, lastBytes_ + lastBytes_ / 8 + kMargin);
  layout_.write(sink, nullptr, {&table}, encoding_);
  EncodedBatch batch = sink->take();
  lastBytes_ = batch.payload().size();
  return batch;
}

}  // namespace kyr::parquet
