#include "storage/TypedColumns.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetSerializerWorker.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet::typedColumns {

namespace {

// Appends the offsets of a list or binary array, counted from \p base. The first chunk also appends
// \p base itself.
template <typename ListLike>
void appendOffsets(const ListLike& array, std::size_t base, std::vector<int>& offsets) {
  if (offsets.empty()) offsets.push_back(static_cast<int>(base));
  const std::int32_t* raw = array.raw_value_offsets();
  for (std::int64_t row = 0; row < array.length(); ++row) {
    offsets.push_back(static_cast<int>(base) + (raw[row + 1] - raw[0]));
  }
}

// Whether 32-bit offsets can count the values of all rows, whose number is \p total.
bool fitsOffsets(const ::arrow::ChunkedArray& column, std::size_t& total) {
  total = 0;
  for (const auto& chunk : column.chunks()) {
    total += chunk->type_id() == ::arrow::Type::LIST
                 ? spannedLength(static_cast<const ::arrow::ListArray&>(*chunk))
                 : spannedLength(static_cast<const ::arrow::BinaryArray&>(*chunk));
  }
  return total <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
}

}  // namespace

void checkSchema(const std::shared_ptr<::arrow::Schema>& schema) {
  if (!schema) {
    throw std::invalid_argument(
        "no schema for the samples: the signal's category or data type is unknown");
  }
}

void checkBlobOffsets(const std::vector<int>& offsets, std::size_t size) {
  if (offsets.empty()) {
    throw std::invalid_argument(
        "no offsets for binary samples: give their lengths or their dimensions");
  }
  checkRowOffsets(offsets, size);
}

ArrayPtr wrapNumeric(const std::shared_ptr<::arrow::DataType>& type, const void* values,
                     std::size_t count) {
  return ::arrow::MakeArray(
      ::arrow::ArrayData::Make(type, static_cast<std::int64_t>(count),
                               {nullptr, borrowBuffer(values, count * valueWidth(*type))},
                               /*null_count=*/0));
}

ArrayPtr wrapBinary(const std::vector<char>& data, const std::vector<int>& offsets) {
  return std::make_shared<::arrow::BinaryArray>(
      static_cast<std::int64_t>(offsets.size()) - 1,
      borrowBuffer(offsets.data(), offsets.size() * sizeof(int)),
      borrowBuffer(data.data(), data.size()));
}

ArrayPtr dimensionColumn(const Dimensions& dimensions) {
  auto [values, offsets] = ParquetSerializerWorker::buildDimensionArrayDataAndOffset(dimensions);
  const auto valueCount = static_cast<std::int64_t>(values.size());
  const auto offsetCount = static_cast<std::int64_t>(offsets.size());
  ArrayPtr valueArray = std::make_shared<::arrow::UInt64Array>(
      valueCount, ::arrow::Buffer::FromVector(std::move(values)));
  ArrayPtr offsetArray = std::make_shared<::arrow::Int32Array>(
      offsetCount, ::arrow::Buffer::FromVector(std::move(offsets)));
  return ParquetSerializerWorker::listArrayBuildHelper(columnNames::dimension, offsetArray,
                                                       valueArray)
      .second;
}

StoredTable::StoredTable(std::string file, std::shared_ptr<::arrow::Table> table, bool withTime)
    : file_(std::move(file)), table_(std::move(table)) {
  if (withTime && table_->schema()->GetFieldIndex(columnNames::time) >= 0) dataPosition_ = 1;
}

bool StoredTable::hasData() const {
  return !table_->schema()->GetAllFieldIndices(columnNames::data).empty();
}

void StoredTable::fail(const std::string& what) const {
  throw std::runtime_error(fmt::format("{}: {}", file_, what));
}

void StoredTable::failType(const ::arrow::ChunkedArray& column, const std::string& name,
                           const std::string& expected) const {
  fail(fmt::format("column \"{}\" is {}, expected {}", name, column.type()->ToString(), expected));
}

const ::arrow::ChunkedArray& StoredTable::columnAt(int position, const std::string& name) const {
  if (position >= table_->num_columns()) {
    fail(fmt::format("no column at position {} for \"{}\"", position, name));
  }
  const ::arrow::ChunkedArray& column = *table_->column(position);
  if (column.null_count() > 0) {
    fail(fmt::format("column \"{}\" holds {} nulls, expected none", name, column.null_count()));
  }
  return column;
}

void StoredTable::readTime(std::vector<double>& time) const {
  time.clear();
  if (dataPosition_ == 0) return;
  const ::arrow::ChunkedArray& column = columnAt(0, columnNames::time);
  if (column.type()->id() != ::arrow::Type::DOUBLE) {
    failType(column, columnNames::time, ::arrow::float64()->ToString());
  }
  time.reserve(static_cast<std::size_t>(column.length()));
  for (const auto& chunk : column.chunks()) {
    appendBytes(time, firstValue(*chunk),
                static_cast<std::size_t>(chunk->length()) * sizeof(double));
  }
}

template <typename T>
void StoredTable::readValues(const std::shared_ptr<::arrow::DataType>& type, std::vector<T>& values,
                             std::vector<int>& offsets) const {
  if (!hasData()) fail(fmt::format("no column \"{}\"", columnNames::data));
  const ::arrow::ChunkedArray& column = columnAt(dataPosition_, columnNames::data);
  const std::size_t width = valueWidth(*type);
  values.clear();
  offsets.clear();
  if (column.type()->Equals(*type)) {
    values.reserve(static_cast<std::size_t>(column.length()) * width / sizeof(T));
    for (const auto& chunk : column.chunks()) {
      appendBytes(values, firstValue(*chunk), static_cast<std::size_t>(chunk->length()) * width);
    }
    return;
  }
  if (column.type()->id() != ::arrow::Type::LIST ||
      !static_cast<const ::arrow::ListType&>(*column.type()).value_type()->Equals(*type)) {
    failType(column, columnNames::data, fmt::format("{0} or list of {0}", type->ToString()));
  }
  std::size_t total = 0;
  if (!fitsOffsets(column, total)) fail("more elements than 32-bit offsets can tell apart");
  values.reserve(total * width / sizeof(T));
  offsets.reserve(static_cast<std::size_t>(column.length()) + 1);
  std::size_t elements = 0;
  for (const auto& chunk : column.chunks()) {
    const auto& list = static_cast<const ::arrow::ListArray&>(*chunk);
    const std::size_t length = spannedLength(list);
    const ArrayPtr items = spannedValues(list);
    if (items->null_count() > 0) fail("column \"data\" holds null elements, expected none");
    appendOffsets(list, elements, offsets);
    appendBytes(values, firstValue(*items), length * width);
    elements += length;
  }
  if (offsets.empty()) offsets.push_back(0);
}

void StoredTable::readBlobs(std::vector<char>& data, std::vector<int>& offsets) const {
  const ::arrow::ChunkedArray& column = columnAt(dataPosition_, columnNames::data);
  if (column.type()->id() != ::arrow::Type::BINARY) {
    failType(column, columnNames::data, ::arrow::binary()->ToString());
  }
  std::size_t total = 0;
  if (!fitsOffsets(column, total)) fail("more bytes than 32-bit offsets can tell apart");
  data.clear();
  data.reserve(total);
  appendBlobs(column, data, offsets);
}

void StoredTable::readDimensions(Dimensions& dimensions) const {
  if (table_->schema()->GetAllFieldIndices(columnNames::dimension).empty()) return;
  const ::arrow::ChunkedArray& column = columnAt(dataPosition_ + 1, columnNames::dimension);
  if (column.type()->id() != ::arrow::Type::LIST ||
      static_cast<const ::arrow::ListType&>(*column.type()).value_type()->id() !=
          ::arrow::Type::UINT64) {
    failType(column, columnNames::dimension, "list of uint64");
  }
  std::vector<std::size_t> extents;
  std::vector<int> offsets;
  for (const auto& chunk : column.chunks()) {
    const auto& list = static_cast<const ::arrow::ListArray&>(*chunk);
    const ArrayPtr items = spannedValues(list);
    if (items->null_count() > 0) fail("column \"dimension\" holds null elements, expected none");
    appendOffsets(list, extents.size(), offsets);
    appendBytes(extents, firstValue(*items), spannedLength(list) * sizeof(std::uint64_t));
  }
  dimensions = ParquetSerializerWorker::reconstructDimensionArray(extents, offsets);
}

void appendBlobs(const ::arrow::ChunkedArray& column, std::vector<char>& data,
                 std::vector<int>& offsets) {
  offsets.clear();
  for (const auto& chunk : column.chunks()) {
    const auto& blobs = static_cast<const ::arrow::BinaryArray&>(*chunk);
    appendOffsets(blobs, data.size(), offsets);
    if (blobs.length() == 0) continue;
    appendBytes(data, blobs.value_data()->data() + blobs.value_offset(0), spannedLength(blobs));
  }
  if (offsets.empty()) offsets.push_back(static_cast<int>(data.size()));
}

#define KYR_INSTANTIATE(T, A, S)                                                      \
  template void StoredTable::readValues<T>(const std::shared_ptr<::arrow::DataType>&, \
                                           std::vector<T>&, std::vector<int>&) const;
KYR_FOR_EACH_NUMBER_TYPE(KYR_INSTANTIATE)
#undef KYR_INSTANTIATE

}  // namespace kyr::parquet::typedColumns

namespace kyr::parquet {

ParquetSerializerWorker::FieldAndArray ParquetSerializerWorker::binaryArrayBuildHelper(
    const std::string& name, const std::vector<char>& data, const std::vector<int>& offsets) {
  typedColumns::checkBlobOffsets(offsets, data.size());
  auto array =
      std::make_shared<::arrow::BinaryArray>(static_cast<std::int64_t>(offsets.size()) - 1,
                                             ::arrow::Buffer::FromVector(std::vector<int>(offsets)),
                                             ::arrow::Buffer::FromVector(std::vector<char>(data)));
  return {::arrow::field(name, ::arrow::binary()), std::move(array)};
}

std::pair<std::vector<std::size_t>, std::vector<int>>
ParquetSerializerWorker::buildDimensionArrayDataAndOffset(const Dimensions& dimensions) {
  std::vector<std::size_t> values;
  std::vector<int> offsets{0};
  offsets.reserve(dimensions.size() + 1);
  for (const auto& dimension : dimensions) {
    values.insert(values.end(), dimension.begin(), dimension.end());
    offsets.push_back(static_cast<int>(values.size()));
  }
  return {std::move(values), std::move(offsets)};
}

ParquetSerializerWorker::Dimensions ParquetSerializerWorker::reconstructDimensionArray(
    const std::vector<std::size_t>& values, const std::vector<int>& offsets) {
  Dimensions dimensions;
  if (offsets.size() <= 1) return dimensions;
  dimensions.reserve(offsets.size() - 1);
  for (std::size_t i = 0; i + 1 < offsets.size(); ++i) {
    dimensions.emplace_back(values.begin() + offsets[i], values.begin() + offsets[i + 1]);
  }
  return dimensions;
}

ParquetSerializerWorker::FieldAndArray ParquetSerializerWorker::listArrayBuildHelper(
    const std::string& name, std::shared_ptr<::arrow::Array>& offsets,
    std::shared_ptr<::arrow::Array>& values) {
  auto list = ::arrow::ListArray::FromArrays(*offsets, *values, ::arrow::default_memory_pool())
                  .ValueOrDie();
  return {::arrow::field(name, list->type()), std::move(list)};
}

std::shared_ptr<::arrow::Table> ParquetSerializerWorker::tableBuildHelper(
    const std::shared_ptr<::arrow::Schema>& schema,
    const std::vector<std::shared_ptr<::arrow::Array>>& arrays) {
  typedColumns::checkSchema(schema);
  return ::arrow::Table::Make(schema, arrays);
}

void ParquetSerializerWorker::extractDataFromBinaryArray(
    const std::shared_ptr<::arrow::ChunkedArray>& column,
    const std::shared_ptr<::arrow::Field>& field, std::vector<char>& data,
    std::vector<int>& offsets) {
  if (!column || column->type()->id() != ::arrow::Type::BINARY) {
    throw std::invalid_argument(fmt::format("column \"{}\" is {}, expected binary",
                                            field ? field->name() : "",
                                            column ? column->type()->ToString() : "missing"));
  }
  typedColumns::appendBlobs(*column, data, offsets);
}

}  // namespace kyr::parquet
