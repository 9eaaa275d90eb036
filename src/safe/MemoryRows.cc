#include "safe/MemoryRows.h"

#include <arrow/api.h>

#include <algorithm>

#include "safe/StoredRows.h"

namespace kyr::parquet {

std::optional<HeldRows> MemoryRows::inMemory(std::uint64_t from, std::uint64_t to) {
  to = std::min(to, count());
  if (from >= to) return std::nullopt;
  const auto first = static_cast<std::size_t>(from);
  return HeldRows{rows_.slice(first, static_cast<std::size_t>(to) - first), nullptr};
}

Tables MemoryRows::read(std::uint64_t from, std::uint64_t to) {
  return {rows_.table(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from))};
}

std::unique_ptr<ContentRows> MemoryRows::moveToOwnFile() {
  return StoredRows::write(name_, rows_.slice(), {schema(), width_, count()}, codec_);
}

}  // namespace kyr::parquet
