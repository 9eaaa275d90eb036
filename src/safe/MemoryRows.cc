#include "safe/MemoryRows.h"

#include <arrow/api.h>

#include <algorithm>
#include <cstring>

#include "safe/StoredRows.h"

namespace kyr::parquet {

namespace {

// Copies values to the memory, and moves on to the end of them.
template <typename T>
const T* put(char*& memory, const T* values, std::size_t count) {
  if (values == nullptr || count == 0) return values;
  auto* const copy = reinterpret_cast<T*>(memory);
  std::memcpy(copy, values, count * sizeof(T));
  memory += count * sizeof(T);
  return copy;
}

// The elements come last, because what is before them must be aligned.
RowSlice copyOf(const RowSlice& rows, char* memory) {
  RowSlice copy = rows;
  copy.ends = put(memory, rows.ends, rows.rows);
  copy.extentEnds = put(memory, rows.extentEnds, rows.rows);
  if (rows.extentEnds != nullptr) {
    copy.extents = put(memory, rows.extents, rows.extentEnds[rows.rows - 1] - rows.extentBegin);
  }
  copy.elements = put(memory, rows.elements, rows.bytes);
  return copy;
}

}  // namespace

std::unique_ptr<ContentRows> MemoryRows::of(ContentName& name, RowStore rows, std::size_t width,
                                            const AskedCodec& codec) {
  const auto memory = std::make_shared<const RowStore>(std::move(rows));
  return std::make_unique<MemoryRows>(name, memory->schema(), memory->slice(), memory, width,
                                      codec);
}

std::unique_ptr<ContentRows> MemoryRows::of(ContentName& name, const SampleSchema& schema,
                                            const RowSlice& rows, std::size_t width,
                                            const AskedCodec& codec) {
  const std::size_t bytes = bytesIn(rows);
  if (rows.rows == 0 || bytes > SmallMemory::kMostBytes) {
    RowStore store(schema, width);
    store.append(rows);
    return of(name, std::move(store), width, codec);
  }
  const std::shared_ptr<char> memory = name.store().smallMemory().take(bytes);
  return std::make_unique<MemoryRows>(name, schema, copyOf(rows, memory.get()), memory, width,
                                      codec);
}

std::optional<HeldRows> MemoryRows::inMemory(std::uint64_t from, std::uint64_t to) {
  to = std::min(to, count());
  if (from >= to) return std::nullopt;
  const auto first = static_cast<std::size_t>(from);
  return HeldRows{subSlice(rows_, first, static_cast<std::size_t>(to) - first), nullptr};
}

Tables MemoryRows::read(std::uint64_t from, std::uint64_t to) {
  const auto first = static_cast<std::size_t>(from);
  return {tableOf(schema_, subSlice(rows_, first, static_cast<std::size_t>(to) - first))};
}

std::unique_ptr<ContentRows> MemoryRows::moveToOwnFile() {
  return StoredRows::write(name_, rows_, {schema_, width_, count()}, codec_);
}

}  // namespace kyr::parquet
