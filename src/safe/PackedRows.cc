#include "safe/PackedRows.h"

#include <arrow/api.h>

#include <algorithm>

#include "safe/StoredRows.h"

namespace kyr::parquet {

AskedCodec PackedRows::askedCodec() {
  const ::arrow::Compression::type codec = range_.pack->codec();
  return codec == ::arrow::Compression::UNCOMPRESSED ? AskedCodec() : codec;
}

std::optional<HeldRows> PackedRows::inMemory(std::uint64_t from, std::uint64_t to) {
  to = std::min(to, range_.count);
  if (from >= to) return std::nullopt;
  return range_.pack->read(packedId_, range_.first + from, to - from);
}

Tables PackedRows::read(std::uint64_t from, std::uint64_t to) {
  const auto keeper = std::make_shared<RowStore>(schema(), width());
  keeper->append(range_.pack->read(packedId_, range_.first + from, to - from).rows);
  const auto table = keeper->table(0, keeper->rows());
  // The table is over the memory of the keeper.
  return {std::shared_ptr<::arrow::Table>(table.get(), [keeper, table](::arrow::Table*) {})};
}

std::unique_ptr<ContentRows> PackedRows::moveToOwnFile() {
  const HeldRows rows = range_.pack->read(packedId_, range_.first, range_.count);
  return StoredRows::write(name_, rows.rows, {schema(), width(), range_.count}, askedCodec());
}

}  // namespace kyr::parquet
