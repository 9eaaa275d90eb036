#include "files/pack/PackSchema.h"

#include <arrow/api.h>
#include <parquet/exception.h>

#include <cstdint>
#include <utility>

namespace kyr::parquet {

const std::string kPackColumn = "storage";

std::shared_ptr<::arrow::Schema> packSchema(const ::arrow::Schema& contents) {
  ::arrow::FieldVector fields;
  for (const auto& field : contents.fields()) {
    fields.push_back(field->WithNullable(field->type()->id() == ::arrow::Type::LIST));
  }
  fields.push_back(::arrow::field(kPackColumn, ::arrow::int32(), /*nullable=*/false));
  return ::arrow::schema(std::move(fields));
}

std::shared_ptr<::arrow::Schema> contentSchema(const ::arrow::Schema& pack) {
  ::arrow::FieldVector fields;
  for (const auto& field : pack.fields()) {
    if (field->name() != kPackColumn) fields.push_back(field);
  }
  return ::arrow::schema(std::move(fields));
}

bool isPackSchema(const ::arrow::Schema& schema) {
  const int ids = schema.GetFieldIndex(kPackColumn);
  return ids > 0 && ids == schema.num_fields() - 1 &&
         schema.field(ids)->type()->id() == ::arrow::Type::INT32;
}

std::shared_ptr<::arrow::Array> storageIdsOf(const std::vector<IdRun>& runs, bool mayBeRuns) {
  constexpr std::size_t kShortRun = 8;
  std::size_t rows = 0;
  for (const IdRun& run : runs) rows += run.second;
  if (!mayBeRuns || rows < kShortRun * runs.size()) {
    std::vector<std::int32_t> ids;
    ids.reserve(rows);
    for (const auto& [id, count] : runs) ids.insert(ids.end(), count, id);
    return std::make_shared<::arrow::Int32Array>(static_cast<std::int64_t>(rows),
                                                 ::arrow::Buffer::FromVector(std::move(ids)));
  }
  std::vector<std::int32_t> ids;
  std::vector<std::int32_t> ends;
  ids.reserve(runs.size());
  ends.reserve(runs.size());
  std::size_t end = 0;
  for (const auto& [id, count] : runs) {
    if (count == 0) continue;
    ids.push_back(id);
    ends.push_back(static_cast<std::int32_t>(end += count));
  }
  const auto count = static_cast<std::int64_t>(ids.size());
  PARQUET_ASSIGN_OR_THROW(auto array, ::arrow::RunEndEncodedArray::Make(
                                          static_cast<std::int64_t>(rows),
                                          std::make_shared<::arrow::Int32Array>(
                                              count, ::arrow::Buffer::FromVector(std::move(ends))),
                                          std::make_shared<::arrow::Int32Array>(
                                              count, ::arrow::Buffer::FromVector(std::move(ids)))));
  return array;
}

bool haveSameTypes(const ::arrow::Schema& a, const ::arrow::Schema& b) {
  if (a.num_fields() != b.num_fields()) return false;
  for (int i = 0; i < a.num_fields(); ++i) {
    if (a.field(i)->name() != b.field(i)->name() ||
        !a.field(i)->type()->Equals(b.field(i)->type())) {
      return false;
    }
  }
  return true;
}

}  // namespace kyr::parquet
