#include "safe/Part.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "safe/BatchDigests.h"
#include "safe/GrowingRows.h"

namespace kyr::parquet {

namespace {

ContentKey keyOf(std::uint64_t row, const RowSlice& next) {
  const XXH128_hash_t digest = digestOf(subSlice(next, 0, 1));
  return {row, digest.low64, digest.high64};
}

}  // namespace

Part& Part::operator=(Part&& other) noexcept {
  follow(nullptr);
  store_ = std::move(other.store_);
  label_ = std::move(other.label_);
  content_ = std::move(other.content_);
  shared_ = other.shared_;
  pending_ = std::move(other.pending_);
  checkedSchema_ = std::move(other.checkedSchema_);
  shapes_ = std::move(other.shapes_);
  batchRows_ = other.batchRows_;
  codec_ = other.codec_;
  return *this;
}

std::optional<int> Part::id() const {
  return content_ ? std::optional<int>(content_->id()) : std::nullopt;
}

std::uint64_t Part::rows() {
  return (shared_ == kAllRows ? content_->rows() : shared_) + pendingRows();
}

void Part::follow(std::shared_ptr<Content> content) noexcept {
  if (content == content_) return;
  if (content_) content_->labels().remove(*label_);
  content_ = std::move(content);
  if (content_) content_->labels().add(*label_);
}

void Part::takeOver(int id) {
  reset();
  follow(Content::takeOver(store_, id));
  shared_ = kAllRows;
}

void Part::append(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width) {
  append(schema, sliceOf(schema, chunk, width, shapes_), width);
}

void Part::append(const SampleSchema& schema, const RowSlice& rows, std::size_t width) {
  if (rows.rows == 0) return;
  if (content_) {
    if (shared_ == kAllRows) shared_ = content_->rows();
    if (checkedSchema_ != schema.schema) requireSameSchema(schema);
    appendRows(rows);
  } else if (!appendToOther(schema, rows)) {
    const auto content = newContent(schema, width);
    content->growing()->append(rows, batchRows_);
    content->node().attachTo(store_->tree().roots(schema.schema), keyOf(0, rows));
    follow(content);
    shared_ = rows.rows;
  }
}

bool Part::appendRepeated(const SampleSchema& schema, const char* row, std::size_t width) {
  if (checkedSchema_ != schema.schema) return false;
  switch (width) {
    case 1:
      return appendRepeated<1>(row);
    case 2:
      return appendRepeated<2>(row);
    case 4:
      return appendRepeated<4>(row);
    case 8:
      return appendRepeated<8>(row);
    default:
      return false;
  }
}

void Part::prefetchRows() const {
  if (content_ && content_->growing() != nullptr) prefetch(content_->growing(), 3);
}

std::size_t Part::spareRows(const SampleSchema& schema) {
  if (checkedSchema_ != schema.schema) return 0;
  return spareRows();
}

std::size_t Part::spareRows() {
  if (!content_ || pendingRows() > 0 || !content_->labels().isOne()) return 0;
  GrowingRows* growing = content_->growing();
  if (growing == nullptr || shared_ != growing->count()) return 0;
  return growing->spareRows(batchRows_);
}

void Part::take(const RowSlice& rows) {
  if (rows.rows > spareRows()) return queue(rows);
  content_->growing()->append(rows, batchRows_);
  shared_ += rows.rows;
}

void Part::store(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width) {
  if (content_) throw std::logic_error("a part that has rows is given all of them");
  if (chunk.rows == 0) return;
  const RowSlice rows = sliceOf(schema, chunk, width, shapes_);
  try {
    if (appendToOther(schema, rows)) {
      finish();
      return;
    }
    const auto content = newContent(schema, width);
    follow(content);  // before the file is written, which tells whose part it is
    content->finishWith(rows);
    content->node().attachTo(store_->tree().roots(schema.schema), keyOf(0, rows));
    shared_ = rows.rows;
  } catch (...) {
    reset();
    throw;
  }
}

std::shared_ptr<Content> Part::newContent(const SampleSchema& schema, std::size_t width) const {
  return Content::create(store_, schema, width, codec_);
}

void Part::requireSameSchema(const SampleSchema& schema) {
  if (!content_->schema().schema->Equals(*schema.schema)) {
    throw std::invalid_argument(
        fmt::format("the signal's data type or category changed while samples were being "
                    "appended: they are {}, before {}",
                    schema.schema->ToString(), content_->schema().schema->ToString()));
  }
  checkedSchema_ = schema.schema;
}

bool Part::appendToOther(const SampleSchema& schema, const RowSlice& rows) {
  const ContentRoots& roots = store_->tree().roots(schema.schema);
  const auto found = roots.find(keyOf(0, rows));
  if (found == roots.end()) return false;
  follow(found->second->content().shared_from_this());
  try {
    appendRows(rows);
  } catch (...) {
    reset();
    throw;
  }
  return true;
}

void Part::appendRows(const RowSlice& rows) {
  if (appendAtOnce(rows)) return;
  guarded([&] {
    // Rows that nothing waits before are compared where they lie, and kept if they must wait.
    const bool mustQueue = pendingRows() > 0;
    const std::size_t placed = mustQueue ? 0 : place(rows, /*isLast=*/false);
    if (placed == rows.rows) return;
    queue(subSlice(rows, placed, rows.rows - placed));
    if (mustQueue) placePending(/*isLast=*/false);
  });
}

void Part::queue(const RowSlice& rows) {
  if (!pending_) pending_ = std::make_unique<RowStore>(content_->schema(), content_->width());
  pending_->append(rows);
}

// The two common cases: the part that is ahead of all others, and the parts that follow it closely.
bool Part::appendAtOnce(const RowSlice& rows) {
  GrowingRows* growing = content_->growing();
  if (growing == nullptr || pendingRows() > 0) return false;
  const std::uint64_t there = growing->count();
  if (shared_ == there) {
    growing->append(rows, batchRows_);
  } else if (shared_ < growing->memoryStart() || shared_ + rows.rows > there ||
             !areEqual(growing->slice(shared_, rows.rows), rows)) {
    return false;
  }
  shared_ += rows.rows;
  return true;
}

template <typename Operation>
void Part::guarded(Operation&& operation) {
  const auto content = content_;
  const std::uint64_t shared = shared_;
  const std::size_t pending = pendingRows();
  try {
    operation();
  } catch (...) {
    follow(content);
    shared_ = shared;
    if (pending_) pending_->truncate(pending);
    throw;
  }
}

// Pending rows are removed, and rows are added to a content that others see, only when all that can
// fail is done.
void Part::placePending(bool isLast) {
  if (!pending_) return;
  const std::size_t placed = place(pending_->slice(), isLast);
  pending_->dropFront(placed, 1);
}

std::size_t Part::place(const RowSlice& rows, bool isLast) {
  std::size_t at = 0;
  while (at < rows.rows) {
    const RowSlice rest = subSlice(rows, at, rows.rows - at);
    GrowingRows* growing = content_->growing();
    if (growing != nullptr && shared_ == growing->count()) {
      growing->append(rest, batchRows_);
      shared_ += rest.rows;
      return rows.rows;
    }
    const Finding finding = compare(rest, isLast);
    shared_ += finding.equal;
    at += finding.equal;
    if (finding.waits) break;
    if (finding.differs) leave(keyOf(shared_, subSlice(rows, at, rows.rows - at)));
  }
  return at;
}

Part::Finding Part::compare(const RowSlice& rows, bool isLast) {
  const std::uint64_t behind = content_->rows() - shared_;
  if (behind == 0) return {0, true, false};
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(behind, rows.rows));
  const auto there = content_->inMemory(shared_, shared_ + count);
  if (!there) return compareWithDisk(rows, isLast);
  const std::size_t equal = commonRows(there->rows, subSlice(rows, 0, count));
  return {equal, equal < count, false};
}

Part::Finding Part::compareWithDisk(const RowSlice& rows, bool isLast) {
  // Rows that are read from disk at a time where their batch is not known.
  constexpr std::uint64_t kPieceRows = 65536;
  const BatchDigests& known = *content_->digests();
  if (known.head() != nullptr && shared_ < known.head()->rows()) {
    const auto first = static_cast<std::size_t>(shared_);
    const std::size_t count = std::min(known.head()->rows() - first, rows.rows);
    const std::size_t equal =
        commonRows(known.head()->slice(first, count), subSlice(rows, 0, count));
    if (equal < count) return {equal, true, false};
  }
  const BatchDigests::Batch* batch = known.batchOf(shared_);
  const std::uint64_t end =
      batch != nullptr ? batch->end : std::min(content_->rows(), shared_ + kPieceRows);
  const auto toEnd = static_cast<std::size_t>(end - shared_);
  if (rows.rows < toEnd && !isLast) return {0, false, true};
  const RowSlice compared = subSlice(rows, 0, std::min(rows.rows, toEnd));
  if (batch != nullptr && compared.rows == toEnd && shared_ == batch->begin &&
      XXH128_isEqual(digestOf(compared), batch->digest) != 0) {
    return {compared.rows, false, false};
  }
  RowStore stored(content_->schema(), content_->width());
  for (const auto& table : content_->read(shared_, shared_ + compared.rows)) stored.append(*table);
  const std::size_t equal = commonRows(stored.slice(), compared);
  return {equal, equal < compared.rows, false};
}

void Part::leave(const ContentKey& key) {
  ContentNode& node = content_->node();
  if (Content* longer = node.longerContent()) {
    follow(longer->shared_from_this());
  } else if (Content* child = node.child(key)) {
    follow(child->shared_from_this());
  } else {
    follow(content_->makeChild(key, codec_, batchRows_));
  }
}

void Part::flush() {
  if (!content_ || shared_ == kAllRows) return;
  guarded([&] { placePending(/*isLast=*/true); });
  content_->flush();
}

void Part::finish() {
  if (!content_ || shared_ == kAllRows) return;
  guarded([&] { placePending(/*isLast=*/true); });
  // A content that ends here must not be left growing.
  guarded([&] {
    while (shared_ < content_->rows()) leave(ContentKey::endAt(shared_));
    content_->finish();
  });
}

Part::Uncut Part::cut(std::uint64_t rows) {
  if (rows >= this->rows()) return {};
  guarded([&] { placePending(/*isLast=*/true); });
  Uncut before{content_, shared_};
  if (rows == 0) {
    reset();
    return before;
  }
  shared_ = rows;
  // Children of a content have more rows in common with it than it has with its parent. Another
  // part that is cut to these rows finds the same content, too.
  while (Content* parent = content_->node().parentWith(shared_)) {
    follow(parent->shared_from_this());
  }
  return before;
}

void Part::restore(Uncut before) {
  if (!before.content) return;
  follow(std::move(before.content));
  shared_ = before.rows;
}

void Part::reset() {
  follow(nullptr);
  pending_.reset();
  shared_ = 0;
  checkedSchema_.reset();
}

std::optional<HeldRows> Part::inMemory(std::uint64_t from, std::uint64_t to) {
  if (!content_ || (pendingRows() > 0 && to > shared_)) return std::nullopt;
  return content_->inMemory(from, std::min(to, shared_));
}

Tables Part::read(std::uint64_t from, std::uint64_t to) {
  if (!content_) return {};
  to = std::min(to, rows());
  if (from >= to) return {};
  if (pendingRows() == 0) return content_->read(from, to);
  Tables tables;
  if (from < shared_) tables = content_->read(from, std::min(to, shared_));
  if (to > shared_) {
    const std::uint64_t first = std::max(from, shared_);
    tables.push_back(pending_->table(static_cast<std::size_t>(first - shared_),
                                     static_cast<std::size_t>(to - first)));
  }
  return tables;
}

bool Part::isAllOfContent() {
  return content_ && pendingRows() == 0 && (shared_ == kAllRows || shared_ == content_->rows());
}

bool Part::readTimes(std::vector<double>& times) {
  return isAllOfContent() && content_->readTimes(times);
}

bool Part::readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                        std::vector<int>& sizes) {
  return isAllOfContent() && content_->readElements(type, elements, sizes);
}

}  // namespace kyr::parquet
