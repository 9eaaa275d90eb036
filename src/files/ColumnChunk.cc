#include "files/ColumnChunk.h"

#include <arrow/api.h>
#include <parquet/column_page.h>
#include <parquet/encoding.h>
#include <parquet/exception.h>

#include <algorithm>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "files/ValueDictionary.h"
#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

using ::parquet::Encoding;

constexpr std::size_t kPageValues = 65536;
// A compressed page must be at least this part smaller to be worth inflating.
constexpr std::int64_t kLeastSaving = 20;

// The values of a chunk in their physical type.
template <typename Type>
class ChunkWriter {
 public:
  using Value = typename Type::c_type;

  ChunkWriter(::parquet::PageWriter& pages, const Value* values, std::size_t count)
      : pages_(pages), values_(values), count_(count), compresses_(pages.has_compressor()) {}

  std::int64_t write(const ColumnEncoding& encoding) {
    const bool hasDictionary =
        encoding.encoding == Encoding::RLE_DICTIONARY && writeWithDictionary();
    if (!hasDictionary) {
      forEachPage(
          [&](std::size_t from, std::size_t count) { writePage(from, count, encoding.encoding); });
    }
    pages_.Close(hasDictionary, /*fallback=*/false);
    return bytes_;
  }

 private:
  using Bits = std::conditional_t<sizeof(Value) == 8, std::uint64_t, std::uint32_t>;

  template <typename Visit>
  void forEachPage(Visit&& visit) const {
    for (std::size_t from = 0; from < count_; from += kPageValues) {
      visit(from, std::min(kPageValues, count_ - from));
    }
  }

  std::shared_ptr<::arrow::Buffer> plain(std::size_t from, std::size_t count) const {
    return borrowBuffer(values_ + from, count * sizeof(Value));
  }

  void writePage(std::size_t from, std::size_t count, Encoding::type encoding) {
    if (encoding == Encoding::DELTA_BINARY_PACKED || encoding == Encoding::BYTE_STREAM_SPLIT) {
      if (const auto encoded = this->encoded(from, count, encoding)) {
        writeData(encoded, count, encoding);
        return;
      }
    }
    writeData(plain(from, count), count, Encoding::PLAIN);
  }

  // Null if that is no shorter.
  std::shared_ptr<::arrow::Buffer> encoded(std::size_t from, std::size_t count,
                                           Encoding::type encoding) {
    if constexpr (std::is_floating_point_v<Value>) {
      if (encoding == Encoding::DELTA_BINARY_PACKED) return nullptr;
    } else {
      if (encoding == Encoding::BYTE_STREAM_SPLIT) return nullptr;
    }
    const auto encoder = ::parquet::MakeTypedEncoder<Type>(encoding);
    encoder->Put(values_ + from, static_cast<int>(count));
    auto buffer = encoder->FlushValues();
    const bool isLonger = buffer->size() > static_cast<std::int64_t>(count * sizeof(Value));
    return isLonger ? nullptr : buffer;
  }

  // All numbers are found before anything is written, so that nothing is if they are too many.
  bool writeWithDictionary() {
    const std::size_t limit = std::max<std::size_t>(1, count_ / 2);
    ValueDictionary<Bits> dictionary(limit);
    std::vector<std::uint32_t> numbers(count_);
    if (!dictionary.add(reinterpret_cast<const Bits*>(values_), count_, numbers.data())) {
      return false;
    }
    const auto& distinct = dictionary.values();
    unsigned width = 1;
    while ((distinct.size() - 1) >> width != 0) ++width;
    const std::size_t packed = distinct.size() * sizeof(Value) + count_ * width / 8;
    if (packed >= count_ * sizeof(Value)) return false;

    bytes_ +=
        pages_.WriteDictionaryPage({borrowBuffer(distinct.data(), distinct.size() * sizeof(Value)),
                                    static_cast<std::int32_t>(distinct.size()), Encoding::PLAIN});
    forEachPage([&](std::size_t from, std::size_t count) {
      std::string page(1, static_cast<char>(width));
      page += packHybrid(numbers.data() + from, count, width);
      writeData(::arrow::Buffer::FromString(std::move(page)), count, Encoding::RLE_DICTIONARY);
    });
    return true;
  }

  void writeData(std::shared_ptr<::arrow::Buffer> data, std::size_t count,
                 Encoding::type encoding) {
    const std::int64_t size = data->size();
    bool isCompressed = false;
    if (compresses_) {
      PARQUET_ASSIGN_OR_THROW(std::shared_ptr<::arrow::ResizableBuffer> compressed,
                              ::arrow::AllocateResizableBuffer(0));
      pages_.Compress(*data, compressed.get());
      isCompressed = compressed->size() < size - size / kLeastSaving;
      if (isCompressed) data = std::move(compressed);
      compresses_ = isCompressed;  // what did not help once is not tried again
    }
    const auto rows = static_cast<std::int32_t>(count);
    bytes_ += pages_.WriteDataPage(
        ::parquet::DataPageV2(data, rows, /*num_nulls=*/0, rows, encoding,
                              /*definition_levels_byte_length=*/0,
                              /*repetition_levels_byte_length=*/0, size, isCompressed));
  }

  ::parquet::PageWriter& pages_;
  const Value* values_;
  std::size_t count_;
  bool compresses_;
  std::int64_t bytes_ = 0;
};

template <typename Type>
std::int64_t writeAs(::parquet::PageWriter& pages, const ::arrow::Array& values,
                     const ColumnEncoding& encoding) {
  using Value = typename Type::c_type;
  return ChunkWriter<Type>(pages, reinterpret_cast<const Value*>(firstValue(values)),
                           static_cast<std::size_t>(values.length()))
      .write(encoding);
}

// Parquet has no shorter integers than those of four bytes.
template <typename Small>
std::int64_t writeWidened(::parquet::PageWriter& pages, const ::arrow::Array& values,
                          const ColumnEncoding& encoding) {
  const auto* first = reinterpret_cast<const Small*>(firstValue(values));
  const std::vector<std::int32_t> wide(first, first + values.length());
  return ChunkWriter<::parquet::Int32Type>(pages, wide.data(), wide.size()).write(encoding);
}

}  // namespace

std::int64_t writeColumnChunk(::parquet::PageWriter& pages, const ::arrow::Array& values,
                              const ColumnEncoding& encoding) {
  switch (values.type_id()) {
    case ::arrow::Type::DOUBLE:
      return writeAs<::parquet::DoubleType>(pages, values, encoding);
    case ::arrow::Type::FLOAT:
      return writeAs<::parquet::FloatType>(pages, values, encoding);
    case ::arrow::Type::INT64:
    case ::arrow::Type::UINT64:
      return writeAs<::parquet::Int64Type>(pages, values, encoding);
    case ::arrow::Type::INT32:
    case ::arrow::Type::UINT32:
      return writeAs<::parquet::Int32Type>(pages, values, encoding);
    case ::arrow::Type::INT16:
      return writeWidened<std::int16_t>(pages, values, encoding);
    case ::arrow::Type::UINT16:
      return writeWidened<std::uint16_t>(pages, values, encoding);
    case ::arrow::Type::INT8:
      return writeWidened<std::int8_t>(pages, values, encoding);
    case ::arrow::Type::UINT8:
      return writeWidened<std::uint8_t>(pages, values, encoding);
    default:
      throw ::parquet::ParquetException("values of type ", values.type()->ToString(),
                                        " are no numbers");
  }
}

}  // namespace kyr::parquet
