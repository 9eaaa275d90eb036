#include "schema/ContentDigester.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <string_view>

#include "kyr/parquet/ColumnNames.h"
#include "platform/Digest.h"

namespace kyr::parquet {

namespace {

// Lists of one type differ in the names of their items.
std::string nameOf(const ::arrow::DataType& type) {
  if (type.id() != ::arrow::Type::LIST) return type.ToString();
  return fmt::format("list<{}>", type.field(0)->type()->ToString());
}

}  // namespace

// Values of a column: the digests of their blocks, one after the other.
class ContentDigester::Stream {
 public:
  // \param known  the digest of the values, if it is known
  void addBlock(const void* values, std::size_t bytes,
                const std::optional<XXH128_hash_t>& known = std::nullopt) {
    push(known ? *known : digestOfBytes(values, bytes));
  }

  void add(const void* values, std::size_t bytes) {
    if (!state_) {
      state_ = std::make_unique<XXH3_state_t>();
      XXH3_128bits_reset(state_.get());
    }
    if (bytes > 0) XXH3_128bits_update(state_.get(), values, bytes);
  }

  void finishBlock() {
    push(XXH3_128bits_digest(state_.get()));
    XXH3_128bits_reset(state_.get());
  }

  // \param isOpen  whether values were added since the last block
  std::string digest(bool isOpen) const {
    Stream all;
    all.blocks_ = blocks_;
    if (isOpen) all.push(XXH3_128bits_digest(state_.get()));
    return digitsOf(digestOfBytes(all.blocks_.data(), all.blocks_.size()));
  }

 private:
  void push(const XXH128_hash_t& digest) {
    XXH128_canonical_t bytes;
    XXH128_canonicalFromHash(&bytes, digest);
    blocks_.append(reinterpret_cast<const char*>(bytes.digest), sizeof(bytes.digest));
  }

  std::string blocks_;
  std::unique_ptr<XXH3_state_t> state_;  // of a block that comes in pieces
};

struct ContentDigester::Column {
  std::string name;  // and type
  bool hasLengths = false;
  Stream values;
  Stream lengths;  // of lists and blobs
};

ContentDigester::~ContentDigester() = default;
ContentDigester::ContentDigester(ContentDigester&&) noexcept = default;
ContentDigester& ContentDigester::operator=(ContentDigester&&) noexcept = default;

ContentDigester::ContentDigester(const SampleSchema& schema, bool hasTimes) {
  const auto describe = [&](const std::string& name, const ::arrow::DataType& type) {
    Column column;
    column.name = fmt::format("{} {}", name, nameOf(type));
    column.hasLengths = type.id() == ::arrow::Type::LIST || type.id() == ::arrow::Type::BINARY;
    columns_.push_back(std::move(column));
  };
  columns_.reserve(3);
  if (hasTimes) describe(columnNames::time, *::arrow::float64());
  for (const int index : {schema.dataIndex, schema.dimensionIndex}) {
    if (index < 0) continue;
    const ::arrow::Field& field = *schema.schema->field(index);
    describe(field.name(), *field.type());
  }
  if (hasTimes) times_ = &columns_.front();
  if (schema.dataIndex >= 0) data_ = &columns_[hasTimes ? 1 : 0];
  if (schema.dimensionIndex >= 0) dimensions_ = &columns_.back();
}

void ContentDigester::add(const RowSlice& rows, const double* times,
                          const std::optional<XXH128_hash_t>& known) {
  if (rows.rows == kBlockRows && rows_ % kBlockRows == 0) return addPiece(rows, times, known);
  for (std::size_t from = 0; from < rows.rows;) {
    const auto inBlock = static_cast<std::size_t>(rows_ % kBlockRows);
    const std::size_t count = std::min(rows.rows - from, kBlockRows - inBlock);
    addPiece(subSlice(rows, from, count), times == nullptr ? nullptr : times + from, std::nullopt);
    from += count;
  }
}

void ContentDigester::addPiece(const RowSlice& rows, const double* times,
                               const std::optional<XXH128_hash_t>& known) {
  isBlock_ = rows.rows == kBlockRows;
  const auto add = [&](Stream& stream, const void* values, std::size_t bytes) {
    isBlock_ ? stream.addBlock(values, bytes) : stream.add(values, bytes);
  };
  if (times_ != nullptr) add(times_->values, times, rows.rows * sizeof(double));
  if (data_ != nullptr) {
    if (isBlock_) {
      data_->values.addBlock(rows.elements, rows.bytes, known);
    } else {
      data_->values.add(rows.elements, rows.bytes);
    }
    if (data_->hasLengths) addLengths(data_->lengths, rows.ends, rows.begin, rows.rows);
  }
  if (dimensions_ != nullptr) {
    const std::uint64_t extents = rows.extentEnds[rows.rows - 1] - rows.extentBegin;
    add(dimensions_->values, rows.extents, extents * sizeof(std::uint64_t));
    addLengths(dimensions_->lengths, rows.extentEnds, rows.extentBegin, rows.rows);
  }
  rows_ += rows.rows;
  if (isBlock_ || rows_ % kBlockRows != 0) return;
  for (Column& column : columns_) {
    column.values.finishBlock();
    if (column.hasLengths) column.lengths.finishBlock();
  }
}

void ContentDigester::addLengths(Stream& stream, const std::uint64_t* ends, std::uint64_t begin,
                                 std::size_t count) {
  lengths_.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    lengths_[i] = ends[i] - begin;
    begin = ends[i];
  }
  const std::size_t bytes = count * sizeof(std::uint64_t);
  isBlock_ ? stream.addBlock(lengths_.data(), bytes) : stream.add(lengths_.data(), bytes);
}

std::string ContentDigester::digest() const {
  const bool isOpen = rows_ % kBlockRows != 0;
  std::string text = fmt::format("rows {}\n", rows_);
  for (const Column& column : columns_) {
    text += fmt::format("{} {}", column.name, column.values.digest(isOpen));
    if (column.hasLengths) text += ' ' + column.lengths.digest(isOpen);
    text += '\n';
  }
  return digitsOf(digestOfBytes(text.data(), text.size()));
}

}  // namespace kyr::parquet
