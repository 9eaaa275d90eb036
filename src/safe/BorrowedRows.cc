#include "safe/BorrowedRows.h"

#include <arrow/api.h>

#include <algorithm>
#include <utility>

#include "files/ContentReader.h"
#include "kyr/parquet/ColumnNames.h"
#include "platform/DiskFile.h"
#include "safe/GrowingRows.h"
#include "safe/SpilledRows.h"
#include "safe/StoredRows.h"

namespace kyr::parquet {

const SampleSchema& BorrowedRows::schema() {
  if (!schema_) schema_.emplace(open()->columns());
  return *schema_;
}

const BatchDigests* BorrowedRows::digests() const {
  static const BatchDigests kNone;
  return &kNone;
}

const ContentSummary* BorrowedRows::summary() const {
  if (!summary_) {
    summary_ = std::make_unique<const ContentSummary>(name_.store().lender()->summaryOf(lentId_));
  }
  return summary_.get();
}

AskedCodec BorrowedRows::askedCodec() {
  const auto reader = open();
  const ::arrow::Compression::type codec = reader->codec();
  const bool isOpen = reader->isPacked() && codec == ::arrow::Compression::UNCOMPRESSED;
  return isOpen ? AskedCodec() : codec;
}

std::optional<HeldRows> BorrowedRows::inMemory(std::uint64_t from, std::uint64_t to) {
  to = std::min(to, count());
  if (from >= to) return std::nullopt;
  const auto reader = open();
  if (!reader->isPacked()) return std::nullopt;
  return reader->read(from, to - from);
}

Tables BorrowedRows::read(std::uint64_t from, std::uint64_t to) {
  const auto reader = open();
  if (reader->hasTimes()) return {reader->readTable(from, to - from)};
  return {tableOfHeld(schema(), reader->read(from, to - from))};
}

bool BorrowedRows::readTimes(std::vector<double>& times) {
  const auto reader = open();
  if (!holdsNumbers(*reader, *timeSchema().elementType)) return false;
  name_.store().recentTimes().read(reader, times, [&] {
    readColumn(*reader, columnNames::data, sizeof(double), 0, count(), times);
  });
  return true;
}

bool BorrowedRows::readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                                std::vector<int>& sizes) {
  const auto reader = open();
  if (!holdsNumbers(*reader, type)) return false;
  sizes.clear();
  readColumn(*reader, columnNames::data, reader->width(), 0, count(), elements);
  return true;
}

bool BorrowedRows::holdsNumbers(const ContentReader& reader, const ::arrow::DataType& type) {
  return reader.isFlat() && !reader.hasTimes() && reader.schema().elementType->Equals(type);
}

std::unique_ptr<ContentRows> BorrowedRows::moveToOwnFile() {
  const auto reader = open();
  if (reader->isWholeFile()) {
    const bool syncs = name_.store().options().sync != SafeStorage::Sync::never;
    OwnedFile file = name_.createFile([&](const std::filesystem::path& path) {
      copyToNewFile(reader->file().bytes(), path, syncs);
    });
    name_.store().noteNewFile();
    return std::make_unique<StoredRows>(name_, std::move(file),
                                        StoredRows::Shape{schema(), width(), count()},
                                        BatchDigests(), *summary());
  }
  constexpr std::uint64_t kPieceRows = 65'536;
  GrowingRows copy(name_, schema(), width(), askedCodec());
  for (std::uint64_t from = 0; from < count(); from += kPieceRows) {
    copy.append(reader->read(from, std::min(count() - from, kPieceRows)).rows, 0);
  }
  auto finished = copy.finish();
  return finished->hasOwnFile() ? std::move(finished) : finished->moveToOwnFile();
}

bool BorrowedRows::copyFile(const std::filesystem::path& path, bool sync) {
  const auto reader = open();
  if (!reader->isWholeFile()) return false;
  copyToNewFile(reader->file().bytes(), path, sync);
  return true;
}

}  // namespace kyr::parquet
