#include "safe/SpilledRows.h"

#include <arrow/api.h>

#include <algorithm>
#include <utility>

#include "safe/StoredRows.h"

namespace kyr::parquet {

std::shared_ptr<::arrow::Table> tableOfHeld(const SampleSchema& schema, HeldRows rows) {
  const auto table = tableOf(schema, rows.rows);
  return {table.get(), [table, keeper = std::move(rows.keeper)](::arrow::Table*) {}};
}

SpilledRows::SpilledRows(ContentName& name, SpilledRuns runs, RowStore rows,
                         const AskedCodec& codec, BatchDigests digests, ContentSummary summary)
    : name_(name),
      runs_(std::move(runs)),
      rows_(std::move(rows)),
      codec_(codec),
      digests_(std::move(digests)),
      summary_(std::move(summary)) {
  name_.store().addToMemory(bytesIn(rows_.slice()));
}

SpilledRows::~SpilledRows() { name_.store().takeFromMemory(bytesIn(rows_.slice())); }

std::optional<HeldRows> SpilledRows::inMemory(std::uint64_t from, std::uint64_t to) {
  to = std::min(to, count());
  if (from >= to || from < runs_.end()) return std::nullopt;
  const auto first = static_cast<std::size_t>(from - runs_.end());
  return HeldRows{rows_.slice(first, static_cast<std::size_t>(to - from)), nullptr};
}

Tables SpilledRows::read(std::uint64_t from, std::uint64_t to) {
  Tables tables;
  const std::uint64_t begin = runs_.end();
  if (from < begin) {
    const std::uint64_t end = std::min(to, begin);
    tables.push_back(tableOfHeld(schema(), runs_.read(from, end)));
    from = end;
  }
  if (from < to) {
    tables.push_back(
        rows_.table(static_cast<std::size_t>(from - begin), static_cast<std::size_t>(to - from)));
  }
  return tables;
}

std::unique_ptr<ContentRows> SpilledRows::moveToOwnFile() {
  RowStore all(schema(), width());
  for (const auto& table : read(0, count())) all.append(*table);
  return StoredRows::write(name_, all.slice(), {schema(), width(), count()}, codec_);
}

}  // namespace kyr::parquet
