#include "files/pack/PackSchema.h"

#include <arrow/type.h>

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
