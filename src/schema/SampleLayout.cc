#include "schema/SampleLayout.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

bool isBlob(const ::arrow::DataType& type) {
  return type.id() == ::arrow::Type::BINARY || type.id() == ::arrow::Type::STRING;
}

ColumnKind kindOf(const ::arrow::DataType& type) {
  if (isBlob(type)) return ColumnKind::blob;
  if (type.id() != ::arrow::Type::LIST) return ColumnKind::flat;
  // Lists of blobs or of lists would need more offsets, which no raw buffer has.
  const auto& items = *static_cast<const ::arrow::ListType&>(type).value_type();
  return isBlob(items) || items.id() == ::arrow::Type::LIST ? ColumnKind::unsupported
                                                            : ColumnKind::list;
}

std::shared_ptr<::arrow::DataType> leafType(std::shared_ptr<::arrow::DataType> type) {
  while (type->id() == ::arrow::Type::LIST) {
    type = static_cast<const ::arrow::ListType&>(*type).value_type();
  }
  return type;
}

// Appends the end of a row of \p length elements to 32-bit offsets, as Arrow's lists have them.
void push(std::vector<std::int32_t>& offsets, std::size_t length) {
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  if (length > static_cast<std::size_t>(kMax - offsets.back())) {
    throw std::invalid_argument(
        fmt::format("the samples' shapes need more than {} elements", kMax));
  }
  offsets.push_back(offsets.back() + static_cast<std::int32_t>(length));
}

std::shared_ptr<::arrow::Array> dataColumn(const SampleSchema& schema,
                                           const std::shared_ptr<::arrow::DataType>& type,
                                           const SampleBuffers& buffers) {
  if (buffers.rows == 0) return ::arrow::MakeEmptyArray(type).ValueOrDie();
  if (schema.kind == ColumnKind::unsupported) return nullptr;
  if (!buffers.offsets) return arrow::makeArrayZeroCopy(buffers.elements, type);
  if (schema.kind == ColumnKind::blob) {
    return ::arrow::MakeArray(::arrow::ArrayData::Make(
        type, buffers.rows, {nullptr, buffers.offsets, buffers.elements}, /*null_count=*/0));
  }
  const auto elements = arrow::makeArrayZeroCopy(buffers.elements, schema.elementType);
  if (!elements) return nullptr;
  const auto listType = type->id() == ::arrow::Type::LIST ? type : ::arrow::list(elements->type());
  return std::make_shared<::arrow::ListArray>(listType, buffers.rows, buffers.offsets, elements);
}

std::shared_ptr<::arrow::Array> dimensionColumn(const std::shared_ptr<::arrow::DataType>& type,
                                                const SampleBuffers& buffers) {
  if (buffers.dimensionRows == 0) return ::arrow::MakeEmptyArray(type).ValueOrDie();
  return std::make_shared<::arrow::ListArray>(
      type, buffers.dimensionRows, buffers.dimensionOffsets,
      arrow::makeArrayZeroCopy(buffers.dimensionValues, ::arrow::uint64()));
}

}  // namespace

SampleSchema::SampleSchema(std::shared_ptr<::arrow::Schema> of) : schema(std::move(of)) {
  if (!schema) {
    throw std::invalid_argument(
        "no schema for the samples: the signal's category or data type is unknown");
  }
  dataIndex = schema->GetFieldIndex(columnNames::data);
  dimensionIndex = schema->GetFieldIndex(columnNames::dimension);
  if (dataIndex < 0) return;
  const auto& type = schema->field(dataIndex)->type();
  kind = kindOf(*type);
  elementType = leafType(type);
}

bool makesSamples(const SampleSchema& schema) {
  if (schema.kind == ColumnKind::unsupported) return false;
  if (schema.dimensionIndex >= 0) {
    const ::arrow::DataType& type = *schema.schema->field(schema.dimensionIndex)->type();
    if (type.id() != ::arrow::Type::LIST || type.field(0)->type()->id() != ::arrow::Type::UINT64) {
      return false;
    }
  }
  return schema.kind == ColumnKind::blob || isNumber(*schema.elementType);
}

std::size_t elementBytes(const SampleSchema& schema) {
  const auto* fixed = dynamic_cast<const ::arrow::FixedWidthType*>(schema.elementType.get());
  return fixed != nullptr ? static_cast<std::size_t>(fixed->bit_width()) / 8 : 1;
}

std::size_t shapeElements(const std::uint64_t* extents, std::size_t count) {
  std::size_t product = 1;
  bool tooMany = false;
  for (std::size_t i = 0; i < count; ++i) {
    if (extents[i] == 0) return 0;
    tooMany |= __builtin_mul_overflow(product, extents[i], &product);
  }
  return tooMany ? std::numeric_limits<std::size_t>::max() : product;
}

std::vector<std::int32_t> rowOffsets(std::size_t count,
                                     const std::vector<std::vector<std::uint64_t>>& dimensions) {
  if (dimensions.empty()) return {};
  std::vector<std::int32_t> offsets{0};
  if (dimensions.size() > 1) {
    for (const auto& extents : dimensions) push(offsets, shapeElements(extents));
    return offsets;
  }
  const std::size_t elements = shapeElements(dimensions.front());
  const std::size_t samples = elements == 0 ? 0 : count / elements;
  offsets.reserve(samples + 1);
  for (std::size_t i = 0; i < samples; ++i) push(offsets, elements);
  return offsets;
}

std::vector<std::int32_t> rowOffsets(const std::vector<int>& sizes) {
  std::vector<std::int32_t> offsets{0};
  offsets.reserve(sizes.size() + 1);
  for (const int size : sizes) {
    if (size < 0) throw std::invalid_argument(fmt::format("a sample of {} bytes", size));
    push(offsets, static_cast<std::size_t>(size));
  }
  return offsets;
}

void checkRowOffsets(const std::vector<std::int32_t>& offsets, std::size_t limit) {
  std::int32_t previous = 0;
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    if (offsets[i] < previous) {
      throw std::invalid_argument(fmt::format("offset {} of the samples is {}, expected {} or more",
                                              i, offsets[i], previous));
    }
    previous = offsets[i];
  }
  if (static_cast<std::size_t>(previous) > limit) {
    throw std::invalid_argument(fmt::format(
        "the samples' shapes need {} elements, but the data holds {}", previous, limit));
  }
}

std::shared_ptr<::arrow::Table> assembleTable(const SampleSchema& schema,
                                              const SampleBuffers& buffers) {
  std::vector<std::shared_ptr<::arrow::Array>> columns;
  for (int i = 0; i < schema.schema->num_fields(); ++i) {
    const auto& type = schema.schema->field(i)->type();
    if (i == schema.dataIndex) {
      columns.push_back(dataColumn(schema, type, buffers));
    } else if (i == schema.dimensionIndex) {
      columns.push_back(dimensionColumn(type, buffers));
    } else {
      continue;
    }
    if (!columns.back()) return nullptr;
  }
  if (columns.empty()) return nullptr;
  const std::int64_t rows = columns.front()->length();
  auto table = ::arrow::Table::Make(schema.schema, columns, rows);
  const ::arrow::Status status = table->Validate();
  if (!status.ok()) {
    throw std::invalid_argument(
        fmt::format("the samples do not fit the signal's schema: {}", status.message()));
  }
  return table;
}

}  // namespace kyr::parquet
