#include <arrow/type.h>
#include <gmock/gmock.h>

#include <stdexcept>

#include "kyr/parquet/SchemaBuilder.h"

namespace kyr::parquet::schemaBuilder {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Columns = std::vector<std::string>;

// "name: type" of each column. Arrow adds a remark if a field is not nullable or has metadata.
Columns columns(const std::shared_ptr<::arrow::Schema>& schema) {
  Columns result;
  for (const auto& field : schema->fields()) {
    result.push_back(field->ToString(/*show_metadata=*/true));
  }
  return result;
}

TEST(SchemaBuilder, EveryDataTypeHasItsColumnTypeAndWidth) {
  struct {
    int type;
    std::string column;
    std::size_t width;
  } const cases[] = {
      {0, "double", 8},     {1, "float", 4},     {2, "int8", 1},       {3, "uint8", 1},
      {4, "int16", 2},      {5, "uint16", 2},    {6, "int32", 4},      {7, "uint32", 4},
      {8, "int8", 1},       {10000, "int64", 8}, {10001, "uint64", 8}, {10002, "uint64", 8},
      {10003, "uint32", 4}, {10004, "int8", 0},  {10005, "binary", 1}, {20000, "binary", 1},
  };
  for (const auto& [code, column, width] : cases) {
    SCOPED_TRACE(code);
    const auto type = static_cast<KYRSignalDataType>(code);
    EXPECT_EQ(columns(getScalarSchema("x", type, true)), Columns{"x: " + column});
    EXPECT_EQ(columns(getFixedDimSchema("x", type, true)),
              Columns{type == Binary ? "x: binary" : "x: list<item: " + column + ">"});
    if (type != Null) {
      EXPECT_EQ(elementWidth(type), width);
    }
  }
  EXPECT_THAT([] { elementWidth(Null); },
              ThrowsMessage<std::runtime_error>("Null data type encountered."));
}

TEST(SchemaBuilder, EveryCategoryHasItsColumnsInOrder) {
  const std::string dimension = "dimension: list<item: uint64>";
  const Columns withoutTime[] = {
      {"data: int16"},
      {"data: list<item: int16>"},
      {"data: list<item: int16>", dimension},
      {"data: binary"},  // whatever the type
      {"data: binary", dimension},
  };
  for (int code = 0; code < 5; ++code) {
    SCOPED_TRACE(code);
    const auto category = static_cast<KYRSignalCategory>(code);
    Columns expected = withoutTime[code];
    EXPECT_EQ(columns(getSchema(category, Int16, false, "data")), expected);
    expected.insert(expected.begin(), "time: double");
    EXPECT_EQ(columns(getSchema(category, Int16, true, "data")), expected);
  }
  EXPECT_EQ(columns(getVarDimSchema("x", Binary, true)), (Columns{"x: binary", dimension}));
  EXPECT_EQ(columns(getStringSchema("x")), Columns{"x: string"});
}

TEST(SchemaBuilder, UnknownTypesAndCategoriesGiveEmptyPointers) {
  EXPECT_EQ(getSchema(static_cast<KYRSignalCategory>(5), Double, false, "x"), nullptr);
  for (const int code : {-1, 9, 9999, 10006, 19999, 20001}) {
    SCOPED_TRACE(code);
    const auto type = static_cast<KYRSignalDataType>(code);
    for (const auto category : {Scalar, FixedDim, VarDim}) {
      EXPECT_EQ(getSchema(category, type, true, "x"), nullptr);
    }
    EXPECT_NE(getSchema(Bus, type, true, "x"), nullptr);
    EXPECT_EQ(getSchemaWithDimensionsPreserved(type, "x", 2), nullptr);
    EXPECT_THAT([&] { elementWidth(type); },
                ThrowsMessage<std::runtime_error>("Unknown data type encountered."));
    EXPECT_THAT(
        [&] {
          getCustomSchema({{Scalar, Double, true, "a"}, {VarDim, type, true, "b"}});
        },
        ThrowsMessage<std::invalid_argument>(HasSubstr("\"b\"")));
  }
}

TEST(SchemaBuilder, PreservedDimensionsAreListLevelsAndCustomColumnsMayRepeat) {
  for (const int count : {-1, 0, 1}) {
    EXPECT_EQ(columns(getSchemaWithDimensionsPreserved(UInt8, "x", count)),
              Columns{"x: list<item: uint8>"});
  }
  EXPECT_EQ(columns(getSchemaWithDimensionsPreserved(UInt8, "x", 3)),
            Columns{"x: list<item: list<item: list<item: uint8>>>"});
  EXPECT_EQ(createNestedListType(0, ::arrow::uint8()), ::arrow::uint8());
  EXPECT_EQ(columns(getCustomSchema({{Scalar, Double, true, "a"}, {Scalar, Int8, true, "a"}})),
            (Columns{"time: double", "a: double", "time: double", "a: int8"}));
}

}  // namespace
}  // namespace kyr::parquet::schemaBuilder
