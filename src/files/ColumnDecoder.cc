#include "files/ColumnDecoder.h"

#include <parquet/exception.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "files/PhysicalTypes.h"

namespace kyr::parquet {

namespace {

// Values that are decoded at once where there are levels to look at, or values to narrow.
constexpr std::size_t kPieceRows = 8192;

using Levels = std::array<std::int16_t, kPieceRows>;

[[noreturn]] void refuse(const char* what) { throw ::parquet::ParquetException("a column ", what); }

template <typename ParquetType>
void readPiece(::parquet::TypedColumnReader<ParquetType>& column, bool isOptional, Levels& levels,
               typename ParquetType::c_type* out, std::size_t count) {
  for (std::size_t done = 0; done < count;) {
    std::int64_t got = 0;
    const std::int64_t rows =
        column.ReadBatch(static_cast<std::int64_t>(count - done),
                         isOptional ? levels.data() : nullptr, nullptr, out + done, &got);
    if (isOptional && got < rows) refuse("holds nulls");
    if (got <= 0) refuse("has too few values");
    done += static_cast<std::size_t>(got);
  }
}

template <typename ParquetType>
void readValues(::parquet::ColumnReader& column, char* out, std::uint64_t count) {
  using Value = typename ParquetType::c_type;
  auto& typed = static_cast<::parquet::TypedColumnReader<ParquetType>&>(column);
  const bool isOptional = column.descr()->max_definition_level() > 0;
  Levels levels;
  while (count > 0) {
    const auto piece =
        static_cast<std::size_t>(isOptional ? std::min<std::uint64_t>(count, kPieceRows) : count);
    readPiece(typed, isOptional, levels, reinterpret_cast<Value*>(out), piece);
    out += piece * sizeof(Value);
    count -= piece;
  }
}

// Parquet has no integers of fewer than 32 bits.
template <typename T>
void readNarrow(::parquet::ColumnReader& column, char* out, std::uint64_t count) {
  std::array<std::int32_t, kPieceRows> wide;
  while (count > 0) {
    const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(count, kPieceRows));
    readValues<::parquet::Int32Type>(column, reinterpret_cast<char*>(wide.data()), piece);
    for (std::size_t i = 0; i < piece; ++i, out += sizeof(T)) {
      const auto value = static_cast<T>(wide[i]);
      std::memcpy(out, &value, sizeof(T));
    }
    count -= piece;
  }
}

// Calls \p visit with the Parquet type of a column of numbers.
template <typename Visit>
auto visitNumbers(const ::parquet::ColumnReader& column, Visit&& visit) {
  switch (column.descr()->physical_type()) {
    case ::parquet::Type::DOUBLE:
      return visit(::parquet::DoubleType());
    case ::parquet::Type::FLOAT:
      return visit(::parquet::FloatType());
    case ::parquet::Type::INT64:
      return visit(::parquet::Int64Type());
    case ::parquet::Type::INT32:
      return visit(::parquet::Int32Type());
    default:
      refuse("holds no numbers");
  }
}

void readNumbers(::parquet::ColumnReader& column, std::size_t width, char* out,
                 std::uint64_t count) {
  if (width == 1) return readNarrow<std::uint8_t>(column, out, count);
  if (width == 2) return readNarrow<std::uint16_t>(column, out, count);
  visitNumbers(column, [&](auto type) { readValues<decltype(type)>(column, out, count); });
}

std::int64_t skipNumbers(::parquet::ColumnReader& column, std::int64_t count) {
  return visitNumbers(column, [&](auto type) {
    return static_cast<::parquet::TypedColumnReader<decltype(type)>&>(column).Skip(count);
  });
}

}  // namespace

ColumnDecoder::ColumnDecoder(std::unique_ptr<::parquet::ParquetFileReader> file)
    : file_(std::move(file)) {}

void ColumnDecoder::read(int group, int leaf, std::size_t width, std::uint64_t first,
                         std::uint64_t count, char* out) {
  // Behind a failure nothing tells where the column reader is.
  Position position = std::exchange(positions_[leaf], Position());
  seek(position, group, leaf, width, first);
  readNumbers(*position.column, width, out, count);
  position.row += count;
  positions_[leaf] = std::move(position);
}

void ColumnDecoder::seek(Position& position, int group, int leaf, std::size_t width,
                         std::uint64_t row) {
  if (position.group != group || position.row > row) {
    position = Position();
    position.group = group;
    position.rows = file_->RowGroup(group);
    position.column = position.rows->Column(leaf);
    const auto* column = position.column->descr();
    if (column->max_repetition_level() > 0 || column->max_definition_level() > 1) {
      refuse("holds lists, not numbers");
    }
    if (width < physicalWidth(column->physical_type()) &&
        column->physical_type() != ::parquet::Type::INT32) {
      refuse("holds numbers of another width");
    }
  }
  while (position.row < row) {
    const std::int64_t got =
        skipNumbers(*position.column, static_cast<std::int64_t>(row - position.row));
    if (got <= 0) refuse("has too few values");
    position.row += static_cast<std::uint64_t>(got);
  }
}

}  // namespace kyr::parquet
