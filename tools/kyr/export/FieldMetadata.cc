#include "export/FieldMetadata.h"

#include <arrow/type.h>
#include <arrow/util/key_value_metadata.h>

#include <nlohmann/json.hpp>

#include "kyr/parquet/ColumnNames.h"

namespace kyr::tool {

std::shared_ptr<const ::arrow::KeyValueMetadata> fieldMetadata(const recording::SignalInfo& signal,
                                                               const std::string& fieldName) {
  auto metadata = std::make_shared<::arrow::KeyValueMetadata>();
  if (!signal.unit.empty()) metadata->Append("unit", signal.unit);
  if (!signal.description.empty()) metadata->Append("description", signal.description);
  if (!signal.dimensions.empty()) {
    metadata->Append("dimensions", nlohmann::json(signal.dimensions).dump());
  }
  if (signal.name != fieldName) metadata->Append("name", signal.name);
  return metadata->size() > 0 ? metadata : nullptr;
}

std::shared_ptr<::arrow::Field> timeField() {
  return ::arrow::field(parquet::columnNames::time, ::arrow::float64(),
                        ::arrow::key_value_metadata({{"unit", "s"}}));
}

}  // namespace kyr::tool
