#include "files/ColumnChunk.h"

#include <arrow/api.h>
#include <parquet/encoding.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "files/DeltaEncoder.h"
#include "files/PhysicalTypes.h"
#include "files/ValueDictionary.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

using ::parquet::Encoding;

// Bits of the numbers of so many distinct values.
unsigned bitsFor(std::size_t distinct) {
  unsigned width = 1;
  while (distinct > 0 && (distinct - 1) >> width != 0) ++width;
  return width;
}

// A column of numbers of the type \p Value, or of lists of them.
template <typename Value>
class ChunkWriter {
 public:
  ChunkWriter(ChunkPages& pages, const ::arrow::ChunkedArray& values,
              const ::parquet::ColumnDescriptor& column, const PageSize& size)
      : pages_(pages), values_(values), column_(column), size_(size) {}

  void write(Encoding::type encoding) {
    if (encoding == Encoding::RLE_DICTIONARY && writeWithDictionary()) return;
    forEachPage([&](const ColumnPage& page) { writePage(page, encoding); });
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
    parquet::forEachPage(values_, column_, size_, sizeof(Stored), visit);
  }

  // The values of a page without its nulls, as Parquet stores them. They lie in the column's memory
  // if that has the same form, and otherwise in memory that is valid until the next call.
  const std::vector<Run>& storedValues(const ColumnPage& page) {
    runs_.clear();
    if (sizeof(Value) == sizeof(Stored) && page.missing == 0) {
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

  void writePage(const ColumnPage& page, Encoding::type encoding) {
    const auto encoded = this->encoded(page, encoding);
    if (encoded && encoded->size() <= page.values * std::int64_t{sizeof(Stored)}) {
      return addData(page, encoding, {std::string_view(*encoded)});
    }
    pieces_.clear();
    for (const auto& [values, count] : storedValues(page)) {
      pieces_.push_back(bytesOf(values, count));
    }
    addData(page, Encoding::PLAIN, pieces_);
  }

  // Null if the encoding is not one for this type.
  std::shared_ptr<::arrow::Buffer> encoded(const ColumnPage& page, Encoding::type encoding) {
    if constexpr (std::is_floating_point_v<Stored>) {
      if (encoding != Encoding::BYTE_STREAM_SPLIT) return nullptr;
      const auto encoder = ::parquet::MakeTypedEncoder<Type>(encoding);
      for (const auto& [values, count] : storedValues(page)) {
        encoder->Put(values, static_cast<int>(count));
      }
      return encoder->FlushValues();
    } else {
      if (encoding != Encoding::DELTA_BINARY_PACKED) return nullptr;
      DeltaEncoder<Stored> encoder(static_cast<std::size_t>(page.values));
      if (page.missing == 0) {
        for (const auto& [array, from, count] : page.runs) {
          const auto* values = reinterpret_cast<const Value*>(firstValue(*array));
          encoder.add(values + from, static_cast<std::size_t>(count));
        }
      } else {
        for (const auto& [values, count] : storedValues(page)) encoder.add(values, count);
      }
      return ::arrow::Buffer::FromString(encoder.finish());
    }
  }

  // Finds all numbers before it writes anything. Returns false, and has written nothing, if there
  // are too many distinct values.
  bool writeWithDictionary() {
    std::size_t all = 0;
    forEachPage([&](const ColumnPage& page) { all += static_cast<std::size_t>(page.values); });
    ValueDictionary<Bits> dictionary(std::max<std::size_t>(1, all / 2));
    const std::unique_ptr<std::uint32_t[]> numbers(new std::uint32_t[all]);
    std::size_t numbered = 0;
    bool isSmall = true;
    forEachPage([&](const ColumnPage& page) {
      if (!isSmall) return;
      for (const auto& [values, count] : storedValues(page)) {
        const auto* bits = reinterpret_cast<const Bits*>(values);
        isSmall = isSmall && dictionary.add(bits, count, numbers.get() + numbered);
        numbered += count;
      }
    });
    const std::size_t distinct = dictionary.values().size();
    const unsigned width = bitsFor(distinct);
    const std::size_t packed = distinct * sizeof(Stored) + all * width / 8;
    if (!isSmall || packed >= all * sizeof(Stored)) return false;

    const auto* values = reinterpret_cast<const Stored*>(dictionary.values().data());
    pages_.addDictionary(bytesOf(values, distinct), distinct);
    const std::uint32_t* next = numbers.get();
    forEachPage([&](const ColumnPage& page) {
      const auto count = static_cast<std::size_t>(page.values);
      std::string indices(1, static_cast<char>(width));
      indices += packHybrid(next, count, width);
      addData(page, Encoding::RLE_DICTIONARY, {indices});
      next += count;
    });
    return true;
  }

  void addData(const ColumnPage& page, Encoding::type encoding, const ChunkPages::Pieces& values) {
    pages_.addData(page, encoding, values);
  }

  ChunkPages& pages_;
  const ::arrow::ChunkedArray& values_;
  const ::parquet::ColumnDescriptor& column_;
  PageSize size_;
  std::vector<Run> runs_;
  std::vector<Stored> converted_;
  ChunkPages::Pieces pieces_;
};

// Writes runs of equal numbers as repetitions of a dictionary's numbers.
void writeRuns(ChunkPages& pages, const ::arrow::RunEndEncodedArray& runs, const PageSize& size) {
  const auto& ends = static_cast<const ::arrow::Int32Array&>(*runs.run_ends());
  const auto count = static_cast<std::size_t>(ends.length());
  const auto* const values = reinterpret_cast<const std::uint32_t*>(firstValue(*runs.values()));
  ValueDictionary<std::uint32_t> dictionary(count);
  std::vector<std::uint32_t> numbers(count);
  dictionary.add(values, count, numbers.data());
  const std::vector<std::uint32_t>& distinct = dictionary.values();
  pages.addDictionary(
      {reinterpret_cast<const char*>(distinct.data()), distinct.size() * sizeof(std::uint32_t)},
      distinct.size());
  const unsigned width = bitsFor(distinct.size());
  const std::int64_t batchBytes = size.batchRows * std::int64_t{sizeof(std::uint32_t)};
  const std::int64_t pageRows =
      size.batchRows * std::max<std::int64_t>(1, (size.bytes + batchBytes - 1) / batchBytes);
  std::int64_t run = 0;
  for (std::int64_t at = 0; at < runs.length();) {
    ColumnPage page;
    page.rows = page.values = std::min(pageRows, runs.length() - at);
    HybridRuns indices(width);
    for (const std::int64_t pageEnd = at + page.rows; at < pageEnd;) {
      const auto end = std::min<std::int64_t>(ends.Value(run), pageEnd);
      indices.add(numbers[static_cast<std::size_t>(run)], static_cast<std::size_t>(end - at));
      at = end;
      if (at == ends.Value(run)) ++run;
    }
    const std::string header(1, static_cast<char>(width));
    const std::string encoded = indices.finish();
    pages.addData(page, Encoding::RLE_DICTIONARY, {header, encoded});
  }
}

}  // namespace

void writeColumnChunk(ChunkPages& pages, const ::arrow::ChunkedArray& values,
                      const ::parquet::ColumnDescriptor& column, const PageSize& size,
                      Encoding::type encoding) {
  const ::arrow::DataType& type = *values.type();
  if (type.id() == ::arrow::Type::RUN_END_ENCODED) {
    return writeRuns(pages, static_cast<const ::arrow::RunEndEncodedArray&>(*values.chunk(0)),
                     size);
  }
  const bool areLists = type.id() == ::arrow::Type::LIST && isListOfNumbers(column);
  visitNumber(areLists ? type.field(0)->type()->id() : type.id(), [&](auto number) {
    using Value = typename decltype(number)::Value;
    ChunkWriter<Value>(pages, values, column, size).write(encoding);
  });
}

}  // namespace kyr::parquet
