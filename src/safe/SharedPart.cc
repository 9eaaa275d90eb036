#include "safe/SharedPart.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kyr::parquet {

namespace {

// Rows that are read from disk at a time to be compared.
constexpr std::uint64_t kPieceRows = 65536;

ForkKey keyOf(std::uint64_t row, const RowSlice& next) {
  const XXH128_hash_t digest = digestOf(subSlice(next, 0, 1));
  return {row, digest.low64, digest.high64};
}

}  // namespace

std::optional<int> SharedPart::id() const {
  return stream_ ? std::optional<int>(stream_->id()) : std::nullopt;
}

std::uint64_t SharedPart::rows() {
  openStream();
  return equalRows_ + pendingRows();
}

SharedPart& SharedPart::operator=(SharedPart&& other) noexcept {
  moveTo(nullptr);
  store_ = std::move(other.store_);
  label_ = std::move(other.label_);
  stream_ = std::move(other.stream_);
  equalRows_ = other.equalRows_;
  pending_ = std::move(other.pending_);
  batchRows_ = other.batchRows_;
  compression_ = other.compression_;
  isOpened_ = other.isOpened_;
  checkedSchema_ = std::move(other.checkedSchema_);
  shapes_ = std::move(other.shapes_);
  return *this;
}

void SharedPart::moveTo(std::shared_ptr<SharedStream> stream) noexcept {
  if (stream == stream_) return;
  if (stream_) stream_->part(label_.get());
  stream_ = std::move(stream);
  if (stream_) stream_->join(label_.get());
}

void SharedPart::adopt(int id) {
  reset();
  auto stream = store_->streamOf(id);
  moveTo(stream ? stream : SharedStream::adopt(store_, id, store_->takePacked(id)));
  isOpened_ = false;
}

void SharedPart::openStream() {
  if (isOpened_) return;
  stream_->open();
  equalRows_ = stream_->rows();
  isOpened_ = true;
}

void SharedPart::append(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width) {
  append(schema, sliceOf(schema, chunk, width, shapes_), width);
}

void SharedPart::append(const SampleSchema& schema, const RowSlice& rows, std::size_t width) {
  if (rows.rows == 0) return;
  openStream();
  if (stream_ && checkedSchema_ != schema.schema) requireSameSchema(schema);
  if (stream_) {
    appendRows(rows);
  } else if (!beginAsAnother(schema, rows)) {
    const auto stream = SharedStream::create(store_, schema, width, compression_);
    stream->extend(rows, batchRows_);
    stream->hangUnderRoot(store_->roots(schema.schema), keyOf(0, rows));
    moveTo(stream);
    equalRows_ = rows.rows;
  }
}

void SharedPart::store(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width) {
  if (stream_) throw std::logic_error("a part that has rows is given all of them");
  if (chunk.rows == 0) return;
  const RowSlice rows = sliceOf(schema, chunk, width, shapes_);
  try {
    if (beginAsAnother(schema, rows)) {
      finish();
      return;
    }
    const auto stream = SharedStream::create(store_, schema, width, compression_);
    moveTo(stream);  // for the file to tell whose it is
    stream->sealWith(rows);
    stream->hangUnderRoot(store_->roots(schema.schema), keyOf(0, rows));
    equalRows_ = rows.rows;
  } catch (...) {
    reset();
    throw;
  }
}

void SharedPart::requireSameSchema(const SampleSchema& schema) {
  if (!stream_->schema().schema->Equals(*schema.schema)) {
    throw std::invalid_argument(
        fmt::format("the signal's data type or category changed while samples were being "
                    "appended: they are {}, before {}",
                    schema.schema->ToString(), stream_->schema().schema->ToString()));
  }
  checkedSchema_ = schema.schema;
}

bool SharedPart::beginAsAnother(const SampleSchema& schema, const RowSlice& rows) {
  const Forks& roots = store_->roots(schema.schema);
  const auto found = roots.find(keyOf(0, rows));
  if (found == roots.end()) return false;
  moveTo(found->second->shared_from_this());
  try {
    appendRows(rows);
  } catch (...) {
    reset();
    throw;
  }
  return true;
}

void SharedPart::appendRows(const RowSlice& rows) {
  if (appendAtOnce(rows)) return;
  guarded([&] {
    // Rows that nothing waits before are compared where they lie, and kept if they must wait.
    const bool mustQueue = pendingRows() > 0;
    const std::size_t at = mustQueue ? 0 : settle(rows, /*isLast=*/false);
    if (at == rows.rows) return;
    if (!pending_) pending_.emplace(stream_->schema(), stream_->width());
    pending_->append(subSlice(rows, at, rows.rows - at));
    if (mustQueue) settlePending(/*isLast=*/false);
  });
}

// The two everyday cases: the first of those who share a stream, and those who follow.
bool SharedPart::appendAtOnce(const RowSlice& rows) {
  if (pendingRows() > 0) return false;
  const std::uint64_t streamRows = stream_->rows();
  if (equalRows_ == streamRows) {
    if (stream_->isSealed()) return false;
    stream_->extend(rows, batchRows_);
  } else if (equalRows_ < stream_->memoryStart() || equalRows_ + rows.rows > streamRows ||
             !areEqual(stream_->inMemory(equalRows_, rows.rows), rows)) {
    return false;
  }
  equalRows_ += rows.rows;
  return true;
}

template <typename Operation>
void SharedPart::guarded(Operation&& operation) {
  const auto stream = stream_;
  const std::uint64_t equalRows = equalRows_;
  const std::size_t pending = pendingRows();
  try {
    operation();
  } catch (...) {
    moveTo(stream);
    equalRows_ = equalRows;
    if (pending_) pending_->truncate(pending);
    throw;
  }
}

// Nothing is taken from the pending rows, and nothing added to a stream that others see, before all
// that may fail is done.
void SharedPart::settlePending(bool isLast) {
  if (!pending_) return;
  const std::size_t settled = settle(pending_->slice(), isLast);
  pending_->dropFront(settled, 1);
}

std::size_t SharedPart::settle(const RowSlice& rows, bool isLast) {
  std::size_t at = 0;
  while (at < rows.rows) {
    const RowSlice rest = subSlice(rows, at, rows.rows - at);
    if (equalRows_ == stream_->rows() && !stream_->isSealed()) {
      stream_->extend(rest, batchRows_);
      equalRows_ += rest.rows;
      return rows.rows;
    }
    const Finding finding = compare(rest, isLast);
    equalRows_ += finding.equal;
    at += finding.equal;
    if (finding.waits) break;
    if (finding.differs) leave(keyOf(equalRows_, subSlice(rows, at, rows.rows - at)));
  }
  return at;
}

SharedPart::Finding SharedPart::compare(const RowSlice& rest, bool isLast) {
  if (equalRows_ == stream_->rows()) return {0, true, false};
  return equalRows_ < stream_->memoryStart() ? compareWithDisk(rest, isLast)
                                             : compareWithMemory(rest);
}

SharedPart::Finding SharedPart::compareWithMemory(const RowSlice& rest) {
  const auto there = static_cast<std::size_t>(stream_->rows() - equalRows_);
  const std::size_t count = std::min(there, rest.rows);
  const std::size_t equal =
      commonRows(stream_->inMemory(equalRows_, count), subSlice(rest, 0, count));
  return {equal, equal < count, false};
}

SharedPart::Finding SharedPart::compareWithDisk(const RowSlice& rest, bool isLast) {
  const RowStore* head = stream_->head();
  if (head != nullptr && equalRows_ < head->rows()) {
    const auto first = static_cast<std::size_t>(equalRows_);
    const std::size_t count = std::min(head->rows() - first, rest.rows);
    const std::size_t equal = commonRows(head->slice(first, count), subSlice(rest, 0, count));
    if (equal < count) return {equal, true, false};
  }
  const SharedStream::Batch* batch = stream_->batchOf(equalRows_);
  const std::uint64_t end =
      batch ? batch->end : std::min(stream_->memoryStart(), equalRows_ + kPieceRows);
  const auto toEnd = static_cast<std::size_t>(end - equalRows_);
  if (rest.rows < toEnd && !isLast) return {0, false, true};
  const RowSlice rows = subSlice(rest, 0, std::min(rest.rows, toEnd));
  if (batch && rows.rows == toEnd && equalRows_ == batch->begin &&
      XXH128_isEqual(digestOf(rows), batch->digest) != 0) {
    return {rows.rows, false, false};
  }
  RowStore stored(stream_->schema(), stream_->width());
  for (const auto& table : stream_->read(equalRows_, equalRows_ + rows.rows)) stored.append(*table);
  const std::size_t equal = commonRows(stored.slice(), rows);
  return {equal, equal < rows.rows, false};
}

void SharedPart::leave(const ForkKey& key) {
  if (SharedStream* longer = stream_->longerOne()) {
    moveTo(longer->shared_from_this());
    return;
  }
  const auto found = stream_->forks().find(key);
  moveTo(found == stream_->forks().end() ? stream_->fork(key, compression_, batchRows_)
                                         : found->second->shared_from_this());
}

void SharedPart::flush() {
  if (!stream_ || !isOpened_) return;
  guarded([&] { settlePending(/*isLast=*/true); });
  stream_->flush();
}

void SharedPart::finish() {
  if (!stream_ || !isOpened_) return;
  guarded([&] { settlePending(/*isLast=*/true); });
  guarded([&] {
    if (equalRows_ < stream_->rows()) leave(SharedStream::endKey(equalRows_));
  });
  stream_->seal();
}

void SharedPart::reset() {
  moveTo(nullptr);
  pending_.reset();
  equalRows_ = 0;
  isOpened_ = true;
  checkedSchema_.reset();
}

std::optional<HeldRows> SharedPart::held(std::uint64_t from, std::uint64_t to) {
  if (!isOpened_ && stream_->hasFile()) return std::nullopt;
  to = std::min(to, rows());
  if (from >= to || to > equalRows_) return std::nullopt;
  return stream_->held(from, to);
}

std::vector<std::shared_ptr<::arrow::Table>> SharedPart::read(std::uint64_t from,
                                                              std::uint64_t to) {
  to = std::min(to, rows());
  if (from >= to) return {};
  std::vector<std::shared_ptr<::arrow::Table>> tables;
  if (from < equalRows_) tables = stream_->read(from, std::min(to, equalRows_));
  if (to > equalRows_) {
    const std::uint64_t first = std::max(from, equalRows_);
    tables.push_back(pending_->table(static_cast<std::size_t>(first - equalRows_),
                                     static_cast<std::size_t>(to - first)));
  }
  return tables;
}

}  // namespace kyr::parquet
