#include "recording/ContentChecks.h"

#include <arrow/type.h>
#include <fmt/format.h>

#include <optional>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"

namespace kyr::recording {

namespace {

// The same types, whatever the child fields are called: Parquet calls a list's child "element".
bool areSameTypes(const ::arrow::DataType& a, const ::arrow::DataType& b) {
  if (a.id() != b.id() || a.num_fields() != b.num_fields()) return false;
  for (int i = 0; i < a.num_fields(); ++i) {
    if (!areSameTypes(*a.field(i)->type(), *b.field(i)->type())) return false;
  }
  return true;
}

bool areSameColumns(const ::arrow::Schema& a, const ::arrow::Schema& b) {
  if (a.num_fields() != b.num_fields()) return false;
  for (int i = 0; i < a.num_fields(); ++i) {
    if (a.field(i)->name() != b.field(i)->name() ||
        !areSameTypes(*a.field(i)->type(), *b.field(i)->type())) {
      return false;
    }
  }
  return true;
}

std::string textOf(const ::arrow::Schema& schema) {
  std::string text;
  for (const auto& field : schema.fields()) {
    text +=
        fmt::format("{}{}: {}", text.empty() ? "" : ", ", field->name(), field->type()->ToString());
  }
  return text;
}

}  // namespace

std::string columnFault(const ::arrow::Schema& columns, KYRSignalCategory category,
                        KYRSignalDataType type) {
  const bool hasTimes = columns.GetFieldIndex(parquet::columnNames::time) >= 0;
  const auto expected =
      parquet::schemaBuilder::getSchema(category, type, hasTimes, parquet::columnNames::data);
  if (expected && areSameColumns(columns, *expected)) return "";
  return fmt::format("has the columns [{}], expected [{}]", textOf(columns),
                     expected ? textOf(*expected) : "none");
}

std::string sampleFault(const SignalInfo& signal, const parquet::SampleSchema& schema,
                        const parquet::RowSlice& rows, std::uint64_t first) {
  if (schema.kind != parquet::ColumnKind::list) return "";
  if (rows.extentEnds == nullptr && signal.dimensions.empty()) return "";
  std::uint64_t expected =
      parquet::shapeElements(signal.dimensions.data(), signal.dimensions.size());
  std::uint64_t begin = rows.begin;
  const std::uint64_t* extents = rows.extents;
  std::uint64_t extentBegin = rows.extentBegin;
  for (std::size_t row = 0; row < rows.rows; ++row) {
    if (rows.extentEnds != nullptr) {
      const std::uint64_t count = rows.extentEnds[row] - extentBegin;
      expected = parquet::shapeElements(extents, count);
      extents += count;
      extentBegin = rows.extentEnds[row];
    }
    const std::uint64_t found = rows.ends[row] - begin;
    begin = rows.ends[row];
    if (found != expected) {
      return fmt::format("sample {} has {} elements, its shape {}", first + row, found, expected);
    }
  }
  return "";
}

std::string countFault(const SignalInfo& signal, std::uint64_t rows) {
  if (rows == signal.rowCount) return "";
  return fmt::format(
      "{} {} in the file of storage id {}, expected {}", rows,
      signal.dataStorageId ? "samples" : "times",
      signal.dataStorageId ? *signal.dataStorageId : signal.timeStorageId.value_or(0),
      signal.rowCount);
}

}  // namespace kyr::recording
