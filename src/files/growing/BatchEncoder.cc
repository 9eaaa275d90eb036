#include "files/growing/BatchEncoder.h"

#include <arrow/api.h>
#include <parquet/exception.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <utility>

#include "files/FileSink.h"

namespace kyr::parquet {

namespace {

constexpr std::size_t kMargin = 4096;
// Bytes that are copied and then hashed. They stay in the nearest cache.
constexpr std::size_t kPieceBytes = 4096;

// Shorter pieces are copied: each borrowed one is a piece of the write.
constexpr std::size_t kLeastBorrowed = 4096;

// The memory of a table's values.
class TableMemory {
 public:
  explicit TableMemory(const ::arrow::Table& table) {
    for (const auto& column : table.columns()) {
      if (column->num_chunks() == 1) add(*column->chunk(0)->data());
    }
  }

  bool holds(std::string_view bytes) const {
    const auto isIn = [bytes](std::string_view buffer) {
      return bytes.data() >= buffer.data() &&
             bytes.data() + bytes.size() <= buffer.data() + buffer.size();
    };
    return std::any_of(buffers_.begin(), buffers_.end(), isIn);
  }

 private:
  void add(const ::arrow::ArrayData& array) {
    for (const auto& buffer : array.buffers) {
      if (buffer) buffers_.emplace_back(std::string_view(*buffer));
    }
    for (const auto& child : array.child_data) add(*child);
  }

  std::vector<std::string_view> buffers_;
};

// Takes the bytes of a batch.
class BatchTaker {
 public:
  /// \param table  whose memory is borrowed; may be null
  /// \param expected  bytes that are to be copied
  BatchTaker(const ::arrow::Table* table, std::size_t expected) {
    if (table != nullptr) memory_.emplace(*table);
    bytes_.copied.reserve(expected);
  }

  void add(std::string_view bytes) {
    if (memory_ && bytes.size() >= kLeastBorrowed && memory_->holds(bytes)) {
      hashTo(bytes_.copied.size());
      bytes_.borrowed.push_back({bytes_.copied.size(), bytes});
      bytes_.hash.add(bytes);
      return;
    }
    while (!bytes.empty()) {
      const std::string_view piece = bytes.substr(0, kPieceBytes);
      bytes_.copied += piece;
      // The magic at the start and what may be the tail are left out.
      hashTo(std::max(bytes_.copied.size(), kParquetTailBytes) - kParquetTailBytes);
      bytes.remove_prefix(piece.size());
    }
  }

  BatchBytes take() { return std::move(bytes_); }

 private:
  void hashTo(std::size_t end) {
    if (end <= hashed_) return;
    bytes_.hash.add(std::string_view(bytes_.copied).substr(hashed_, end - hashed_));
    hashed_ = end;
  }

  std::optional<TableMemory> memory_;
  BatchBytes bytes_;
  std::size_t hashed_ = kParquetMagic.size();
};

// What \p write writes to a sink, as a batch whose row group is to stand at \p offset of a file.
template <typename Write>
EncodedBatch written(std::uint64_t offset, BatchTaker taker, Write&& write) {
  write(std::make_shared<FileSink>(
      [&taker](std::string_view first, std::string_view second) {
        taker.add(first);
        taker.add(second);
      },
      offset));
  return EncodedBatch(taker.take());
}

}  // namespace

EncodedBatch::EncodedBatch(BatchBytes bytes) : bytes_(std::move(bytes)) {
  const std::string_view tail = std::string_view(bytes_.copied).substr(end());
  if (tail.substr(4) != kParquetMagic) {
    throw std::invalid_argument("growing files cannot be encrypted");
  }
  metadataBytes_ = metadataLength(tail);
}

std::vector<std::string_view> EncodedBatch::payload() const {
  std::vector<std::string_view> pieces;
  std::size_t from = kParquetMagic.size();
  const auto addTo = [&](std::size_t to) {
    pieces.push_back(std::string_view(bytes_.copied).substr(from, to - from));
    from = to;
  };
  for (const auto& [at, bytes] : bytes_.borrowed) {
    addTo(at);
    pieces.push_back(bytes);
  }
  addTo(end());
  return pieces;
}

std::string_view EncodedBatch::metadata() const {
  return std::string_view(bytes_.copied).substr(end() - metadataBytes_, metadataBytes_);
}

std::size_t EncodedBatch::rowGroupBytes() const {
  const std::size_t copied = end() - kParquetMagic.size() - metadataBytes_;
  return std::accumulate(
      bytes_.borrowed.begin(), bytes_.borrowed.end(), copied,
      [](std::size_t sum, const auto& borrowed) { return sum + borrowed.bytes.size(); });
}

EncodedBatch BatchEncoder::encodeEmpty(
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) const {
  return written(0, BatchTaker(nullptr, 0),
                 [&](const auto& sink) { layout_.write(sink, keyValues, {}); });
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
      written(offset, BatchTaker(&table, lastBytes_ + lastBytes_ / 8 + kMargin),
              [&](const auto& sink) { layout_.write(sink, keyValues, {&table}, encoding_); });
  lastBytes_ = batch.copiedBytes();
  return batch;
}

}  // namespace kyr::parquet
