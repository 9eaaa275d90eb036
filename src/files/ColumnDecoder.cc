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

// Puts \p count numbers, which are there as Parquet has them, behind the others.
template <typename Value>
void appendNumbers(const std::vector<Value>& numbers, std::size_t count, std::size_t width,
                   ByteBuffer& out) {
  if (width == sizeof(Value)) return out.append(numbers.data(), count * width);
  const std::size_t size = out.size();
  out.extend(count * width);
  char* to = out.data() + size;
  // The lower bytes are the number.
  for (std::size_t i = 0; i < count; ++i, to += width) std::memcpy(to, &numbers[i], width);
}

// Notes where rows end, by the levels of their items.
class RowEnds {
 public:
  RowEnds(const ::parquet::ColumnDescriptor& column, std::uint64_t rows,
          std::vector<std::uint64_t>& ends)
      : maxLevel_(column.max_definition_level()),
        emptyLevel_(levelOfEmpty(column)),
        rowsLeft_(rows),
        ends_(ends),
        items_(ends.empty() ? 0 : ends.back()) {}

  void add(const Levels& definitions, const Levels& repetitions, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (repetitions[i] == 0) {
        if (rowsLeft_ == 0) refuse("has too many values");
        --rowsLeft_;
        ends_.push_back(items_);
      } else if (!hasRow_) {
        refuse("begins within a row");
      }
      hasRow_ = true;
      if (definitions[i] == maxLevel_) {
        ends_.back() = ++items_;
      } else if (definitions[i] != emptyLevel_) {
        refuse("holds nulls");
      } else if (repetitions[i] != 0) {
        refuse("has an empty list within a row");
      }
    }
  }
  void requireAll() const {
    if (rowsLeft_ > 0) refuse("has too few values");
  }

 private:
  // The definition level of a list without items: all that is above its repeated node is there.
  static std::int16_t levelOfEmpty(const ::parquet::ColumnDescriptor& column) {
    std::int16_t level = column.max_definition_level();
    for (const auto* node = column.schema_node().get(); node; node = node->parent()) {
      if (!node->is_required()) --level;
      if (node->is_repeated()) break;
    }
    return level;
  }

  std::int16_t maxLevel_;
  std::int16_t emptyLevel_;
  std::uint64_t rowsLeft_;
  bool hasRow_ = false;
  std::vector<std::uint64_t>& ends_;
  std::uint64_t items_;
};

template <typename ParquetType>
void readLists(::parquet::ColumnReader& column, std::uint64_t rows, std::size_t width,
               ByteBuffer& items, std::vector<std::uint64_t>& ends) {
  using Value = typename ParquetType::c_type;
  auto& typed = static_cast<::parquet::TypedColumnReader<ParquetType>&>(column);
  if (width > sizeof(Value)) refuse("holds numbers of another width");
  RowEnds rowEnds(*column.descr(), rows, ends);
  Levels definitions;
  Levels repetitions;
  std::vector<Value> piece(kPieceRows);
  while (column.HasNext()) {
    std::int64_t got = 0;
    const std::int64_t levels =
        typed.ReadBatch(kPieceRows, definitions.data(), repetitions.data(), piece.data(), &got);
    if (levels <= 0) refuse("has too few values");
    rowEnds.add(definitions, repetitions, static_cast<std::size_t>(levels));
    appendNumbers(piece, static_cast<std::size_t>(got), width, items);
  }
  rowEnds.requireAll();
}

void readBlobs(::parquet::ColumnReader& column, std::uint64_t rows, ByteBuffer& items,
               std::vector<std::uint64_t>& ends) {
  auto& typed = static_cast<::parquet::ByteArrayReader&>(column);
  const std::int16_t maxLevel = column.descr()->max_definition_level();
  Levels definitions;
  std::vector<::parquet::ByteArray> piece(kPieceRows);
  std::uint64_t end = ends.empty() ? 0 : ends.back();
  for (; column.HasNext();) {
    std::int64_t got = 0;
    const std::int64_t levels = typed.ReadBatch(
        kPieceRows, maxLevel > 0 ? definitions.data() : nullptr, nullptr, piece.data(), &got);
    if (levels > got) refuse("holds nulls");
    if (got <= 0) refuse("has too few values");
    if (static_cast<std::uint64_t>(got) > rows) refuse("has too many values");
    rows -= static_cast<std::uint64_t>(got);
    for (std::int64_t i = 0; i < got; ++i) {
      const ::parquet::ByteArray& blob = piece[static_cast<std::size_t>(i)];
      items.append(blob.ptr, blob.len);
      ends.push_back(end += blob.len);
    }
  }
  if (rows > 0) refuse("has too few values");
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
  // The pages of a row group that was read to its end are freed: hundreds of files may be open.
  const auto rows = static_cast<std::uint64_t>(position.rows->metadata()->num_rows());
  if (position.row < rows) positions_[leaf] = std::move(position);
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
    const auto rows = position.rows->metadata();
    if (rows->ColumnChunk(leaf)->num_values() != rows->num_rows()) refuse("has too few values");
  }
  while (position.row < row) {
    const std::int64_t got =
        skipNumbers(*position.column, static_cast<std::int64_t>(row - position.row));
    if (got <= 0) refuse("has too few values");
    position.row += static_cast<std::uint64_t>(got);
  }
}

void ColumnDecoder::readRows(int group, int leaf, std::size_t width, ByteBuffer& items,
                             std::vector<std::uint64_t>& ends) {
  const auto rowGroup = file_->RowGroup(group);
  const auto rows = static_cast<std::uint64_t>(rowGroup->metadata()->num_rows());
  const auto column = rowGroup->Column(leaf);
  const ::parquet::ColumnDescriptor& descriptor = *column->descr();
  if (descriptor.max_repetition_level() == 1) {
    visitNumbers(*column,
                 [&](auto type) { readLists<decltype(type)>(*column, rows, width, items, ends); });
  } else if (descriptor.physical_type() == ::parquet::Type::BYTE_ARRAY &&
             descriptor.max_repetition_level() == 0 && descriptor.max_definition_level() <= 1) {
    readBlobs(*column, rows, items, ends);
  } else {
    refuse("holds neither lists of numbers nor blobs");
  }
}

}  // namespace kyr::parquet
