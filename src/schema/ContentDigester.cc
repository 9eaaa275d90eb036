#include "schema/ContentDigester.h"

#include <arrow/api.h>
#include <xxhash.h>

#include <algorithm>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "platform/Digest.h"

namespace kyr::parquet {

namespace {

// Lists of one type differ in the names of their items.
void appendType(std::string& text, const ::arrow::DataType& type) {
  if (type.id() == ::arrow::Type::LIST) {
    text.append("list<").append(type.field(0)->type()->name()).append(">");
  } else {
    text.append(type.name());
  }
}

}  // namespace

void ContentDigester::Stream::addBlock(const void* values, std::size_t bytes,
                                       const std::optional<XXH128_hash_t>& known) {
  XXH128_canonical_t digest;
  XXH128_canonicalFromHash(&digest, known ? *known : digestOfBytes(values, bytes));
  if (!first_) {
    first_ = digest;
  } else {
    others_.append(reinterpret_cast<const char*>(digest.digest), sizeof(digest.digest));
  }
}

void ContentDigester::Stream::add(const void* values, std::size_t bytes) {
  if (!state_) {
    state_ = std::make_unique<XXH3_state_t>();
    XXH3_128bits_reset(state_.get());
  }
  addToDigest(*state_, values, bytes);
}

void ContentDigester::Stream::finishBlock() {
  addBlock(nullptr, 0, XXH3_128bits_digest(state_.get()));
  XXH3_128bits_reset(state_.get());
}

XXH128_hash_t ContentDigester::Stream::digest(bool isOpen) const {
  if (isOpen) {
    Stream all;
    all.first_ = first_;
    all.others_ = others_;
    all.addBlock(nullptr, 0, XXH3_128bits_digest(state_.get()));
    return all.digest(/*isOpen=*/false);
  }
  if (!first_) return digestOfBytes(nullptr, 0);
  if (others_.empty()) return digestOfBytes(first_->digest, sizeof(first_->digest));
  std::string blocks(reinterpret_cast<const char*>(first_->digest), sizeof(first_->digest));
  blocks += others_;
  return digestOfBytes(blocks.data(), blocks.size());
}

ContentDigester::ContentDigester(SampleSchema schema, bool hasTimes)
    : schema_(std::move(schema)), hasTimes_(hasTimes) {}

void ContentDigester::add(const RowSlice& rows, const double* times,
                          const std::optional<XXH128_hash_t>& known) {
  if (rows.rows == kBlockRows && !isOpen_) return addPiece(rows, times, known, /*isBlock=*/true);
  for (std::size_t from = 0; from < rows.rows;) {
    const auto inBlock = static_cast<std::size_t>(rows_ % kBlockRows);
    const std::size_t count = std::min(rows.rows - from, kBlockRows - inBlock);
    addPiece(subSlice(rows, from, count), times == nullptr ? nullptr : times + from, std::nullopt,
             count == kBlockRows);
    from += count;
  }
}

void ContentDigester::addLast(const RowSlice& rows, const std::optional<XXH128_hash_t>& known) {
  const std::size_t whole = rows.rows - rows.rows % kBlockRows;
  if (isOpen_ || hasTimes_ || whole == rows.rows) return add(rows, nullptr, known);
  if (whole > 0) add(subSlice(rows, 0, whole));
  addPiece(whole > 0 ? subSlice(rows, whole, rows.rows - whole) : rows, nullptr,
           whole > 0 ? std::nullopt : known, /*isBlock=*/true);
}

template <typename Visit>
void ContentDigester::forEachStream(Visit&& visit) {
  if (hasTimes_) visit(times_);
  visit(elements_);
  if (schema_.kind != ColumnKind::flat) visit(lengths_);
  if (schema_.dimensionIndex < 0) return;
  visit(extents_);
  visit(extentCounts_);
}

void ContentDigester::addPiece(const RowSlice& rows, const double* times,
                               const std::optional<XXH128_hash_t>& known, bool isBlock) {
  const auto add = [isBlock](Stream& stream, const void* values, std::size_t bytes) {
    isBlock ? stream.addBlock(values, bytes) : stream.add(values, bytes);
  };
  if (hasTimes_) add(times_, times, rows.rows * sizeof(double));
  if (isBlock) {
    elements_.addBlock(rows.elements, rows.bytes, known);
  } else {
    elements_.add(rows.elements, rows.bytes);
  }
  if (schema_.kind != ColumnKind::flat) {
    addLengths(lengths_, rows.ends, rows.begin, rows.rows, isBlock);
  }
  if (schema_.dimensionIndex >= 0) {
    const std::uint64_t extents = rows.extentEnds[rows.rows - 1] - rows.extentBegin;
    add(extents_, rows.extents, extents * sizeof(std::uint64_t));
    addLengths(extentCounts_, rows.extentEnds, rows.extentBegin, rows.rows, isBlock);
  }
  rows_ += rows.rows;
  isOpen_ = !isBlock;
  if (isBlock || rows_ % kBlockRows != 0) return;
  forEachStream([](Stream& stream) { stream.finishBlock(); });
  isOpen_ = false;
}

void ContentDigester::addLengths(Stream& stream, const std::uint64_t* ends, std::uint64_t begin,
                                 std::size_t count, bool isBlock) {
  counts_.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    counts_[i] = ends[i] - begin;
    begin = ends[i];
  }
  const std::size_t bytes = count * sizeof(std::uint64_t);
  isBlock ? stream.addBlock(counts_.data(), bytes) : stream.add(counts_.data(), bytes);
}

std::string ContentDigester::digest() const {
  std::string text;
  text.reserve(256);
  const auto appendDigest = [&](const Stream& stream) {
    const DigestDigits digits = hexOf(stream.digest(isOpen_));
    text.append(" ").append(digits.data(), digits.size());
  };
  text.append("rows ").append(std::to_string(rows_));
  if (hasTimes_) {
    text.append("\ntime double");
    appendDigest(times_);
  }
  text.append("\n").append(columnNames::data).append(" ");
  appendType(text, *schema_.schema->field(schema_.dataIndex)->type());
  appendDigest(elements_);
  if (schema_.kind != ColumnKind::flat) appendDigest(lengths_);
  if (schema_.dimensionIndex >= 0) {
    text.append("\n").append(columnNames::dimension).append(" list<uint64>");
    appendDigest(extents_);
    appendDigest(extentCounts_);
  }
  text.append("\n");
  return digitsOf(digestOfBytes(text.data(), text.size()));
}

}  // namespace kyr::parquet
