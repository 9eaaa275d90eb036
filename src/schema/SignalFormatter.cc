#include "kyr/parquet/SignalFormatter.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

namespace {

using BufferPtr = std::shared_ptr<::arrow::Buffer>;

// A copy of the values in the pool's memory.
template <typename T>
BufferPtr pooledCopy(const std::vector<T>& values, ::arrow::MemoryPool* pool) {
  const auto bytes = static_cast<std::int64_t>(values.size() * sizeof(T));
  PARQUET_ASSIGN_OR_THROW(std::shared_ptr<::arrow::Buffer> buffer,
                          ::arrow::AllocateBuffer(bytes, pool));
  if (bytes > 0)
    std::memcpy(buffer->mutable_data(), values.data(), static_cast<std::size_t>(bytes));
  return buffer;
}

std::size_t sizeOf(const BufferPtr& buffer) {
  return buffer ? static_cast<std::size_t>(buffer->size()) : 0;
}

std::shared_ptr<::arrow::ListArray> wrapInLists(const std::shared_ptr<::arrow::Array>& values,
                                                std::size_t groups, std::uint64_t groupLength,
                                                ::arrow::MemoryPool* pool) {
  const auto offsets = rowOffsets(groups * groupLength, SignalFormatter::Dimensions{{groupLength}});
  auto type = ::arrow::list(::arrow::field(innerItemName, values->type()));
  return std::make_shared<::arrow::ListArray>(std::move(type),
                                              static_cast<std::int64_t>(offsets.size()) - 1,
                                              pooledCopy(offsets, pool), values);
}

[[noreturn]] void failColumn(const std::string& name, const std::string& what) {
  throw std::runtime_error(fmt::format("column \"{}\" {}", name, what));
}

void checkNoNulls(const ::arrow::Array& array, const std::string& name) {
  if (array.null_count() > 0) {
    failColumn(name, fmt::format("holds {} nulls, expected none", array.null_count()));
  }
}

// Appends the elements of all rows, also those of nested lists.
void appendElements(const ::arrow::Array& array, std::vector<char>& bytes) {
  checkNoNulls(array, columnNames::data);
  if (array.type_id() == ::arrow::Type::LIST) {
    appendElements(*spannedValues(static_cast<const ::arrow::ListArray&>(array)), bytes);
  } else if (isNumber(array.type_id())) {
    appendBytes(bytes, firstValue(array),
                static_cast<std::size_t>(array.length()) * valueWidth(*array.type()));
  } else {
    failColumn(columnNames::data, fmt::format("has elements of type {}, which no signal has",
                                              array.type()->ToString()));
  }
}

void appendBlobs(const ::arrow::BinaryArray& blobs, std::vector<char>& bytes,
                 std::vector<int>& sizes) {
  checkNoNulls(blobs, columnNames::data);
  for (std::int64_t row = 0; row < blobs.length(); ++row) {
    sizes.push_back(blobs.value_length(row));
  }
  if (blobs.length() == 0) return;
  appendBytes(bytes, blobs.value_data()->data() + blobs.value_offset(0), spannedLength(blobs));
}

SignalFormatter::Dimensions dimensionsOf(const ::arrow::ChunkedArray& column) {
  SignalFormatter::Dimensions dimensions;
  for (const auto& chunk : column.chunks()) {
    checkNoNulls(*chunk, columnNames::dimension);
    const auto fail = [&chunk] {
      failColumn(columnNames::dimension,
                 fmt::format("is {}, expected list of uint64", chunk->type()->ToString()));
    };
    if (chunk->type_id() != ::arrow::Type::LIST) fail();
    const auto& list = static_cast<const ::arrow::ListArray&>(*chunk);
    if (list.values()->type_id() != ::arrow::Type::UINT64) fail();
    checkNoNulls(*list.values(), columnNames::dimension);
    const auto* extents = static_cast<const ::arrow::UInt64Array&>(*list.values()).raw_values();
    for (std::int64_t row = 0; row < list.length(); ++row) {
      dimensions.emplace_back(extents + list.value_offset(row),
                              extents + list.value_offset(row + 1));
    }
  }
  return dimensions;
}

}  // namespace

SignalFormatter::SignalFormatter() : SignalFormatter(::arrow::default_memory_pool()) {}

SignalFormatter::SignalFormatter(::arrow::MemoryPool* pool) : pool_(pool) {}

std::shared_ptr<::arrow::Table> SignalFormatter::format(
    const BufferPtr& data, KYRSignalDataType type, const std::shared_ptr<::arrow::Schema>& schema,
    const Dimensions& dimensions, const std::vector<int>& sizes) {
  const std::size_t count = sizeOf(data) / elementWidth(type);
  const SampleSchema layout(schema);
  const bool bySizes = schema->num_fields() > 0 && !sizes.empty() &&
                       (schema->field(0)->type()->id() == ::arrow::Type::BINARY ||
                        schema->field(0)->type()->id() == ::arrow::Type::STRING);
  const std::vector<std::int32_t> offsets =
      bySizes ? rowOffsets(sizes) : rowOffsets(count, dimensions);

  SampleBuffers buffers;
  buffers.elements = data;
  if (sizeOf(data) > 0) {
    buffers.rows = static_cast<std::int64_t>(count);
    if (!offsets.empty()) {
      checkRowOffsets(offsets, layout.kind == ColumnKind::blob ? sizeOf(data) : count);
      buffers.rows = static_cast<std::int64_t>(offsets.size()) - 1;
      buffers.offsets = pooledCopy(offsets, pool_);
    }
  }
  if (layout.dimensionIndex >= 0) {
    std::vector<int> ranks;
    std::vector<std::uint64_t> extents;
    for (const auto& entry : dimensions) {
      ranks.push_back(static_cast<int>(entry.size()));
      extents.insert(extents.end(), entry.begin(), entry.end());
    }
    buffers.dimensionRows = static_cast<std::int64_t>(dimensions.size());
    buffers.dimensionOffsets = pooledCopy(rowOffsets(ranks), pool_);
    buffers.dimensionValues = pooledCopy(extents, pool_);
  }
  return assembleTable(layout, buffers);
}

std::shared_ptr<::arrow::Table> SignalFormatter::formatMatrixPreserveDimension(
    const BufferPtr& data, KYRSignalDataType type, const std::shared_ptr<::arrow::Schema>& schema,
    const Dimensions& dimensions) {
  const SampleSchema layout(schema);
  const auto& fields = schema->fields();
  const bool text = std::any_of(fields.begin(), fields.end(), [](const auto& field) {
    return field->type()->id() == ::arrow::Type::STRING;
  });
  std::size_t count = text ? sizeOf(data) : sizeOf(data) / elementWidth(type);
  if (dimensions.empty()) throw std::invalid_argument("no shape for the matrices");
  if (!layout.elementType) return nullptr;

  const BufferPtr memory = data ? data : borrowBuffer(nullptr, 0);
  std::shared_ptr<::arrow::Array> column = arrow::makeArrayZeroCopy(memory, layout.elementType);
  if (!column) return nullptr;
  if (static_cast<std::size_t>(column->length()) < count) {
    throw std::invalid_argument(fmt::format("{} elements of {} bytes do not make {}", count,
                                            elementWidth(type), layout.elementType->ToString()));
  }
  for (const std::uint64_t extent : dimensions.front()) {
    count = extent == 0 ? 0 : count / extent;
    column = wrapInLists(column, count, extent, pool_);
  }
  if (!column->type()->Equals(*schema->field(0)->type())) {
    throw std::invalid_argument(fmt::format("matrices of {} dimensions make {}, the schema has {}",
                                            dimensions.front().size(), column->type()->ToString(),
                                            schema->field(0)->type()->ToString()));
  }
  return ::arrow::Table::Make(schema, {column});
}

void SignalFormatter::reconstruct(std::shared_ptr<::arrow::Table> table, std::vector<char>& bytes,
                                  std::optional<Dimensions>& dimensions,
                                  std::optional<std::vector<int>>& sizes) {
  if (!table) throw std::invalid_argument("no table to take samples from");
  if (const auto column = table->GetColumnByName(columnNames::data)) {
    const ::arrow::Type::type kind = column->type()->id();
    const bool blobs = kind == ::arrow::Type::BINARY || kind == ::arrow::Type::STRING;
    sizes.reset();
    if (blobs || kind == ::arrow::Type::LIST) sizes.emplace();
    for (const auto& chunk : column->chunks()) {
      if (blobs) {
        appendBlobs(static_cast<const ::arrow::BinaryArray&>(*chunk), bytes, *sizes);
        continue;
      }
      appendElements(*chunk, bytes);
      if (!sizes) continue;
      const auto& list = static_cast<const ::arrow::ListArray&>(*chunk);
      for (std::int64_t row = 0; row < list.length(); ++row) {
        sizes->push_back(list.value_length(row));
      }
    }
  }
  dimensions.reset();
  if (const auto column = table->GetColumnByName(columnNames::dimension)) {
    dimensions = dimensionsOf(*column);
  }
}

}  // namespace kyr::parquet
