#include "safe/Content.h"

#include <arrow/api.h>

#include <algorithm>
#include <utility>

#include "safe/BorrowedRows.h"
#include "safe/GrowingRows.h"
#include "safe/StoredRows.h"

namespace kyr::parquet {

std::shared_ptr<Content> Content::create(std::shared_ptr<SharedStore> store,
                                         const SampleSchema& schema, std::size_t width,
                                         const AskedCodec& codec) {
  const int id = store->newId();
  std::shared_ptr<Content> content(new Content(std::move(store), id));
  content->setRows(std::make_unique<GrowingRows>(content->name_, schema, width, codec));
  content->name_.store().add(id, content);
  return content;
}

std::shared_ptr<Content> Content::takeOver(std::shared_ptr<SharedStore> store, int id) {
  if (auto known = store->find(id)) return known;
  store->reserve(id);
  std::shared_ptr<Content> content(new Content(std::move(store), id));
  SharedStore& shared = content->name_.store();
  if (const auto rows = shared.rowsOffered(id)) {
    content->setRows(std::make_unique<BorrowedRows>(content->name_, *rows));
  } else {
    content->setRows(std::make_unique<StoredRows>(content->name_));
  }
  shared.add(id, content);
  return content;
}

void Content::setRows(std::unique_ptr<ContentRows> rows) {
  rows_ = std::move(rows);
  growing_ = rows_->growing();
}

void Content::replaceRows(std::unique_ptr<ContentRows> next) {
  if (!next) return;
  setRows(std::move(next));
  name_.store().syncIfDue();
}

HeldRows Content::allRows() {
  if (auto there = inMemory(0, rows())) return *std::move(there);
  const auto keeper = std::make_shared<RowStore>(schema(), width());
  for (const auto& table : read(0, rows())) keeper->append(*table);
  return {keeper->slice(), keeper};
}

void Content::finishWith(const RowSlice& rows) { replaceRows(growing()->finishWith(rows)); }

void Content::writeCopy(const std::filesystem::path& path, bool sync) {
  if (rows_->copyFile(path, sync)) return;
  const HeldRows all = allRows();
  writeRows(name_, path, all.rows, schema(), rows_->askedCodec(), sync);
}

std::shared_ptr<Content> Content::makeChild(const ContentKey& key, const AskedCodec& codec,
                                            std::size_t batchRows) {
  auto child = create(name_.sharedStore(), schema(), width(), codec);
  // Piece by piece, so that no more than a batch is in memory.
  constexpr std::uint64_t kPieceRows = 65536;
  for (std::uint64_t row = 0; row < key.row;) {
    const std::uint64_t count = std::min(kPieceRows, key.row - row);
    // An append may take rows of this content out of memory.
    RowStore rows(schema(), width());
    const RowStore* const head = digests() != nullptr ? digests()->head() : nullptr;
    if (head != nullptr && row + count <= head->rows()) {
      rows.append(head->slice(static_cast<std::size_t>(row), static_cast<std::size_t>(count)));
    } else {
      for (const auto& table : read(row, row + count)) rows.append(*table);
    }
    child->growing()->append(rows.slice(), batchRows);
    row += count;
  }
  child->node_.attachTo(node_, key);
  return child;
}

}  // namespace kyr::parquet
