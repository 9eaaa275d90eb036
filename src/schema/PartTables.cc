#include "schema/PartTables.h"

#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/parquet/SignalFormatter.h"

namespace kyr::parquet {

const SampleSchema& timeSchema() {
  static const SampleSchema schema(
      schemaBuilder::getSchema(Scalar, Double, /*includeTime=*/false, columnNames::data));
  return schema;
}

void PartRows::append(const std::vector<std::shared_ptr<::arrow::Table>>& tables) {
  for (const auto& table : tables) {
    std::optional<std::vector<std::vector<std::uint64_t>>> shapes;
    std::optional<std::vector<int>> lengths;
    SignalFormatter().reconstruct(table, bytes, shapes, lengths);
    if (shapes) {
      if (!dimensions) dimensions.emplace();
      dimensions->insert(dimensions->end(), shapes->begin(), shapes->end());
    }
    if (lengths) sizes.insert(sizes.end(), lengths->begin(), lengths->end());
  }
}

PartRows::PartRows(const RowSlice& rows) : bytes(rows.elements, rows.elements + rows.bytes) {
  std::uint64_t end = rows.begin;
  if (rows.ends) {
    sizes.reserve(rows.rows);
    for (std::size_t i = 0; i < rows.rows; ++i) {
      sizes.push_back(static_cast<int>(rows.ends[i] - std::exchange(end, rows.ends[i])));
    }
  }
  if (!rows.extentEnds) return;
  const std::uint64_t* extents = rows.extents;
  end = rows.extentBegin;
  dimensions.emplace().reserve(rows.rows);
  for (std::size_t i = 0; i < rows.rows; ++i) {
    const std::uint64_t count = rows.extentEnds[i] - std::exchange(end, rows.extentEnds[i]);
    dimensions->emplace_back(extents, extents + count);
    extents += count;
  }
}

}  // namespace kyr::parquet
