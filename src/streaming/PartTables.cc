#include "streaming/PartTables.h"

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

}  // namespace kyr::parquet
