#include "files/ColumnChunk.h"

#include <arrow/api.h>
#include <parquet/encoding.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "files/CompactProtocol.h"
#include "files/PhysicalTypes.h"
#include "files/ValueDictionary.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

using ::parquet::Encoding;

// The rows of a page, as runs of an array.
struct PageRows {
  struct Run {
    const ::arrow::Array* array;
    std::int64_t from;
    std::int64_t rows;
  };

  void add(const ::arrow::Array& array, std::int64_t from, std::int64_t count) {
    rows += count;
    if (!runs.empty() && runs.back().array == &array) {
      runs.back().rows += count;
    } else {
      runs.push_back({&array, from, count});
    }
    if (array.null_count() == 0) return;
    for (std::int64_t i = from; i < from + count; ++i) nulls += array.IsNull(i) ? 1 : 0;
  }

  std::int64_t values() const { return rows - nulls; }

  std::vector<Run> runs;
  std::int64_t rows = 0;
  std::int64_t nulls = 0;
};

template <typename Visit>
void forEachPage(const ::arrow::ChunkedArray& column, const PageSize& size, std::int64_t width,
                 Visit&& visit) {
  PageRows page;
  for (const auto& array : column.chunks()) {
    for (std::int64_t at = 0; at < array->length(); at += size.batchRows) {
      page.add(*array, at, std::min(size.batchRows, array->length() - at));
      if (page.values() * width < size.bytes) continue;
      visit(page);
      page = {};
    }
  }
  if (page.rows > 0) visit(page);
}

// The definition levels of a page as runs of equal bits: 1 for a value, 0 for a null.
std::string levelsOf(const PageRows& page) {
  std::string levels;
  const auto put = [&levels](std::int64_t count, bool isThere) {
    putVarint(levels, static_cast<std::uint64_t>(count) << 1U);
    levels.push_back(isThere ? '\1' : '\0');
  };
  if (page.nulls == 0) {
    put(page.rows, true);
    return levels;
  }
  std::int64_t count = 0;
  bool isThere = false;
  for (const auto& [array, from, rows] : page.runs) {
    for (std::int64_t i = from; i < from + rows; ++i) {
      if (count > 0 && array->IsValid(i) != isThere) {
        put(count, isThere);
        count = 0;
      }
      isThere = array->IsValid(i);
      ++count;
    }
  }
  put(count, isThere);
  return levels;
}

// A column of numbers of the type \p Value.
template <typename Value>
class ChunkWriter {
 public:
  ChunkWriter(ChunkPages& pages, const ::arrow::ChunkedArray& column, bool isOptional,
              const PageSize& size)
      : pages_(pages), column_(column), isOptional_(isOptional), size_(size) {}

  void write(Encoding::type encoding) {
    if (encoding == Encoding::RLE_DICTIONARY && writeWithDictionary()) return;
    forEachPage([&](const PageRows& page) { writePage(page, encoding); });
  }

 private:
  using Type = PhysicalType<Value>;
  using Stored = typename Type::c_type;
  using Bits = std::conditional_t<sizeof(Stored) == 8, std::uint64_t, std::uint32_t>;
  struct Run {
    const Stored* values;
    std::size_t count;
  };

  static std::string_view bytesOf(const Stored* values, std::size_t count) {
    return {reinterpret_cast<const char*>(values), count * sizeof(Stored)};
  }

  template <typename Visit>
  void forEachPage(Visit&& visit) const {
    parquet::forEachPage(column_, size_, sizeof(Stored), visit);
  }

  // The values of a page without its nulls, as Parquet stores them. They lie in the column's memory
  // if that has the same form, and otherwise in memory that is valid until the next call.
  const std::vector<Run>& storedValues(const PageRows& page) {
    runs_.clear();
    if (sizeof(Value) == sizeof(Stored) && page.nulls == 0) {
      for (const auto& [array, from, rows] : page.runs) {
        const auto* values = reinterpret_cast<const Stored*>(firstValue(*array)) + from;
        runs_.push_back({values, static_cast<std::size_t>(rows)});
      }
      return runs_;
    }
    converted_.clear();
    for (const auto& [array, from, rows] : page.runs) {
      const auto* values = reinterpret_cast<const Value*>(firstValue(*array));
      if (array->null_count() == 0) {
        converted_.insert(converted_.end(), values + from, values + from + rows);
        continue;
      }
      for (std::int64_t i = from; i < from + rows; ++i) {
        if (array->IsValid(i)) converted_.push_back(static_cast<Stored>(values[i]));
      }
    }
    runs_.push_back({converted_.data(), converted_.size()});
    return runs_;
  }

  void writePage(const PageRows& page, Encoding::type encoding) {
    pieces_.clear();
    for (const auto& [values, count] : storedValues(page)) {
      pieces_.push_back(bytesOf(values, count));
    }
    if (const auto shorter = encoded(encoding, page.values() * std::int64_t{sizeof(Stored)})) {
      return addData(page, encoding, {std::string_view(*shorter)});
    }
    addData(page, Encoding::PLAIN, pieces_);
  }

  // Encodes the values of runs_. Null if the encoding is not one for this type, or if it takes more
  // than \p most bytes.
  std::shared_ptr<::arrow::Buffer> encoded(Encoding::type encoding, std::int64_t most) const {
    constexpr auto kEncoding = std::is_floating_point_v<Stored> ? Encoding::BYTE_STREAM_SPLIT
                                                                : Encoding::DELTA_BINARY_PACKED;
    if (encoding != kEncoding) return nullptr;
    const auto encoder = ::parquet::MakeTypedEncoder<Type>(encoding);
    for (const auto& [values, count] : runs_) encoder->Put(values, static_cast<int>(count));
    auto buffer = encoder->FlushValues();
    return buffer->size() > most ? nullptr : buffer;
  }

  // Finds all numbers before it writes anything. Returns false, and has written nothing, if there
  // are too many distinct values.
  bool writeWithDictionary() {
    const auto all = static_cast<std::size_t>(column_.length() - column_.null_count());
    ValueDictionary<Bits> dictionary(std::max<std::size_t>(1, all / 2));
    std::vector<std::uint32_t> numbers(all);
    std::size_t numbered = 0;
    bool isSmall = true;
    forEachPage([&](const PageRows& page) {
      if (!isSmall) return;
      for (const auto& [values, count] : storedValues(page)) {
        const auto* bits = reinterpret_cast<const Bits*>(values);
        isSmall = isSmall && dictionary.add(bits, count, numbers.data() + numbered);
        numbered += count;
      }
    });
    const std::size_t distinct = dictionary.values().size();
    unsigned width = 1;
    while (distinct > 0 && (distinct - 1) >> width != 0) ++width;
    const std::size_t packed = distinct * sizeof(Stored) + all * width / 8;
    if (!isSmall || packed >= all * sizeof(Stored)) return false;

    const auto* values = reinterpret_cast<const Stored*>(dictionary.values().data());
    pages_.addDictionary(bytesOf(values, distinct), distinct);
    const std::uint32_t* next = numbers.data();
    forEachPage([&](const PageRows& page) {
      const auto count = static_cast<std::size_t>(page.values());
      std::string indices(1, static_cast<char>(width));
      indices += packHybrid(next, count, width);
      addData(page, Encoding::RLE_DICTIONARY, {indices});
      next += count;
    });
    return true;
  }

  void addData(const PageRows& page, Encoding::type encoding, const ChunkPages::Pieces& values) {
    pages_.addData({page.rows, page.nulls, encoding, isOptional_ ? levelsOf(page) : std::string()},
                   values);
  }

  ChunkPages& pages_;
  const ::arrow::ChunkedArray& column_;
  bool isOptional_;
  PageSize size_;
  std::vector<Run> runs_;
  std::vector<Stored> converted_;
  ChunkPages::Pieces pieces_;
};

}  // namespace

void writeColumnChunk(ChunkPages& pages, const ::arrow::ChunkedArray& values,
                      const ::parquet::ColumnDescriptor& column, const PageSize& size,
                      Encoding::type encoding) {
  visitNumber(values.type()->id(), [&](auto number) {
    using Value = typename decltype(number)::Value;
    ChunkWriter<Value>(pages, values, column.max_definition_level() > 0, size).write(encoding);
  });
}

}  // namespace kyr::parquet
