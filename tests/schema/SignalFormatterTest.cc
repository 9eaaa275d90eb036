#include <gmock/gmock.h>

#include <stdexcept>

#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/parquet/SignalFormatter.h"
#include "schema/ArrayMemory.h"
#include "support/ParquetFiles.h"
#include "support/Samples.h"

namespace kyr::parquet {
namespace {

using schemaBuilder::getSchema;
using test::bytesOf;
using test::column;
using test::tableOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Dimensions = SignalFormatter::Dimensions;
using SchemaPtr = std::shared_ptr<::arrow::Schema>;
using TablePtr = std::shared_ptr<::arrow::Table>;

constexpr std::uint64_t kHuge = 1ULL << 32U;

SchemaPtr data(KYRSignalCategory category, KYRSignalDataType type) {
  return getSchema(category, type, /*includeTime=*/false, "data");
}

std::vector<char> shorts(std::int16_t count, std::size_t partialBytes = 0) {
  std::vector<std::int16_t> values;
  for (std::int16_t i = 1; i <= count; ++i) values.push_back(i);
  auto bytes = bytesOf(values);
  bytes.resize(bytes.size() + partialBytes, '?');
  return bytes;
}

const std::vector<char> kLetters{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};

// The memory of the values below all lists.
const std::uint8_t* samplesOf(const ::arrow::ArrayData& array) {
  if (!array.child_data.empty()) return samplesOf(*array.child_data[0]);
  return array.buffers.back()->data();
}

void expectColumns(const TablePtr& table, const SchemaPtr& schema, const std::string& dataText,
                   const std::string& dimensionText, const std::vector<char>& bytes) {
  ASSERT_NE(table, nullptr);
  EXPECT_TRUE(table->schema()->Equals(*schema, true)) << table->schema()->ToString();
  EXPECT_TRUE(table->ValidateFull().ok()) << table->ValidateFull();
  const auto type = schema->field(0)->type();
  EXPECT_TRUE(table->column(0)->Equals(*column(type, {dataText}))) << table->ToString();
  if (table->num_rows() > 0) {
    EXPECT_EQ(samplesOf(*table->column(0)->chunk(0)->data()),
              reinterpret_cast<const std::uint8_t*>(bytes.data()));
  }
  if (!dimensionText.empty()) {
    EXPECT_TRUE(table->column(1)->Equals(*column(schema->field(1)->type(), {dimensionText})))
        << table->ToString();
  }
}

struct FormatCase {
  const char* name;
  KYRSignalDataType type;
  SchemaPtr schema;
  std::vector<char> bytes;
  Dimensions dimensions;
  std::vector<int> sizes;
  std::string data, dimension;
};

std::vector<FormatCase> formatCases() {
  const SchemaPtr scalar = data(Scalar, Int16);
  const SchemaPtr fixed = data(FixedDim, Int16);
  const SchemaPtr variable = data(VarDim, Int16);
  const SchemaPtr bus = data(Bus, Binary);
  const SchemaPtr text = schemaBuilder::getStringSchema("data");
  return {
      {"a row each", Int16, scalar, shorts(3, 1), {}, {}, "[1, 2, 3]", ""},
      {"one matrix", Int16, fixed, shorts(6), {{2, 3}}, {}, "[[1, 2, 3, 4, 5, 6]]", ""},
      {"two vectors", Int16, fixed, shorts(6), {{3}}, {}, "[[1, 2, 3], [4, 5, 6]]", ""},
      {"sizes are for blobs", Int16, fixed, shorts(2), {{2}}, {1, 1}, "[[1, 2]]", ""},
      {"a rest of no sample", Int16, fixed, shorts(6), {{4}}, {}, "[[1, 2, 3, 4]]", ""},
      {"shape without extents", Int16, fixed, shorts(2), {{}}, {}, "[[1], [2]]", ""},
      {"shape without elements", Int16, fixed, shorts(6), {{0, 3}}, {}, "[]", ""},
      {"shape larger than all", Int16, fixed, shorts(6), {{kHuge, kHuge}}, {}, "[]", ""},
      {"own shapes",
       Int16,
       variable,
       shorts(6),
       {{2}, {}, {1, 3}},
       {},
       "[[1, 2], [3], [4, 5, 6]]",
       "[[2], [], [1, 3]]"},
      {"empty shapes",
       Int16,
       variable,
       shorts(3),
       {{kHuge, kHuge, 0}, {1, 3}},
       {},
       "[[], [1, 2, 3]]",
       "[[4294967296, 4294967296, 0], [1, 3]]"},
      {"not all samples",
       Int16,
       variable,
       shorts(6),
       {{1}, {2}},
       {},
       "[[1], [2, 3]]",
       "[[1], [2]]"},
      {"one sample", Int16, variable, shorts(6), {{2, 3}}, {}, "[[1, 2, 3, 4, 5, 6]]", "[[2, 3]]"},
      {"blobs by size", Binary, bus, kLetters, {{9}}, {3, 0, 5}, R"(["abc", "", "defgh"])", ""},
      {"blobs by shape", Binary, bus, kLetters, {{2, 2}}, {}, R"(["abcd", "efgh"])", ""},
      {"blobs by shapes", Binary, bus, kLetters, {{1}, {5}}, {}, R"(["a", "bcdef"])", ""},
      // Samples are counted in elements of the type, but their offsets count bytes.
      {"blobs of a type", Int16, bus, kLetters, {{2}}, {}, R"(["ab", "cd"])", ""},
      {"blobs of any shape",
       Binary,
       data(VarDimBus, Binary),
       kLetters,
       {{9}, {}},
       {3, 5},
       R"(["abc", "defgh"])",
       "[[9], []]"},
      {"texts", UInt8, text, kLetters, {}, {2, 6}, R"(["ab", "cdefgh"])", ""},
      {"no numbers", Int16, scalar, {}, {}, {}, "[]", ""},
      {"no matrices", Int16, fixed, {}, {{2, 3}}, {}, "[]", ""},
      {"no own shapes", Int16, variable, {}, {}, {}, "[]", "[]"},
      {"no blobs", Binary, bus, {}, {}, {0, 0}, "[]", ""},
      {"no texts", Binary, text, {}, {}, {}, "[]", ""},
  };
}

TEST(SignalFormatter, WrapsTheSamplesInTheRowsThatShapesAndSizesSay) {
  for (const FormatCase& c : formatCases()) {
    SCOPED_TRACE(c.name);
    const auto buffer = borrowBuffer(c.bytes.data(), c.bytes.size());
    expectColumns(SignalFormatter().format(buffer, c.type, c.schema, c.dimensions, c.sizes),
                  c.schema, c.data, c.dimension, c.bytes);
    if (!c.bytes.empty()) continue;
    expectColumns(SignalFormatter().format(nullptr, c.type, c.schema, c.dimensions, c.sizes),
                  c.schema, c.data, c.dimension, c.bytes);
  }
}

TEST(SignalFormatter, AllocatesOffsetsInItsPoolAndNothingElse) {
  const auto pool = ::arrow::MemoryPool::CreateDefault();
  const auto* others = ::arrow::default_memory_pool();
  const auto othersBefore = others->total_bytes_allocated();
  const auto bytes = bytesOf(std::vector<double>(1'000'000, 1.5));
  const auto buffer = borrowBuffer(bytes.data(), bytes.size());
  SignalFormatter formatter(pool.get());
  const auto flat = formatter.format(buffer, Double, data(Scalar, Double), {}, {});
  EXPECT_EQ(pool->num_allocations(), 0);
  const auto lists = formatter.format(buffer, Double, data(FixedDim, Double), {{1000}}, {});
  EXPECT_LT(pool->total_bytes_allocated(), 5000);  // 1001 offsets
  const auto nested = formatter.formatMatrixPreserveDimension(
      buffer, Double, schemaBuilder::getSchemaWithDimensionsPreserved(Double, "data", 2),
      {{1000, 10}});
  EXPECT_LT(pool->total_bytes_allocated(), 10000);
  EXPECT_EQ(others->total_bytes_allocated(), othersBefore);
  for (const auto& table : {flat, lists, nested}) {
    EXPECT_EQ(samplesOf(*table->column(0)->chunk(0)->data()), buffer->data());
  }
}

TEST(SignalFormatter, RefusesWhatWouldMakeAMalformedTable) {
  const auto unknown = static_cast<KYRSignalDataType>(9);
  const SchemaPtr fixed = data(FixedDim, Int16);
  const SchemaPtr variable = data(VarDim, Int16);
  const SchemaPtr bus = data(Bus, Binary);
  const std::string noFit = "the samples do not fit the signal's schema";
  struct {
    std::string says;
    KYRSignalDataType type;
    SchemaPtr schema;
    std::vector<char> bytes;
    Dimensions dimensions;
    std::vector<int> sizes;
  } const cases[] = {
      {"Null data type encountered.", Null, data(Scalar, Null), shorts(1), {}, {}},
      {"Unknown data type encountered.", unknown, data(Scalar, Int8), {}, {}, {}},
      {"no schema", Int16, nullptr, shorts(1), {}, {}},
      {"need 7 elements, but the data holds 6", Int16, variable, shorts(6, 1), {{4}, {3}}, {}},
      {"need 9 elements, but the data holds 8", Binary, bus, kLetters, {}, {5, 4}},
      {"need more than 2147483647", Int16, variable, shorts(3), {{kHuge}, {3}}, {}},
      {"need more than 2147483647", Int16, variable, shorts(3), {{kHuge, kHuge}, {3}}, {}},
      {"need more than 2147483647", Binary, bus, kLetters, {}, {2147483647, 1}},
      {"a sample of -1 bytes", Binary, bus, kLetters, {}, {9, -1}},
      {noFit, Int16, variable, shorts(6), {{3}}, {}},  // two samples, one shape
      {noFit, Int16, variable, {}, {{0}, {0}}, {}},    // no samples, two shapes
      {noFit, Int16, data(Scalar, Int16), shorts(2), {{2}}, {}},
      {noFit, Int8, fixed, shorts(6), {{12}}, {}},  // six elements of the schema's type
      {noFit, Int16, getSchema(Scalar, Int16, true, "data"), shorts(1), {}, {}},
      {noFit, Int16, getSchema(VarDim, Int16, false, "other"), shorts(1), {{1}}, {}},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(
        [&] {
          SignalFormatter().format(borrowBuffer(c.bytes.data(), c.bytes.size()), c.type, c.schema,
                                   c.dimensions, c.sizes);
        },
        ThrowsMessage<std::exception>(HasSubstr(c.says)));
  }
}

TEST(SignalFormatter, GivesNoTableWhereTheColumnCannotBeMade) {
  const auto bytes = shorts(4);
  const auto buffer = borrowBuffer(bytes.data(), bytes.size());
  SignalFormatter formatter;
  EXPECT_EQ(formatter.format(buffer, Int16, data(FixedDim, Int16), {}, {}), nullptr);
  EXPECT_EQ(formatter.format(buffer, Binary, data(Bus, Binary), {}, {}), nullptr);
  EXPECT_EQ(formatter.format(buffer, ByteString, data(FixedDim, ByteString), {{2}}, {}), nullptr);
  EXPECT_EQ(formatter.format(buffer, Int16, getSchema(Scalar, Int16, false, "x"), {}, {}), nullptr);
  // The type does not matter for a column of text.
  const auto text = schemaBuilder::getStringSchema("data");
  EXPECT_EQ(formatter.formatMatrixPreserveDimension(buffer, Null, text, {{2}}), nullptr);
}

TEST(SignalFormatter, MatricesNestOneListPerDimensionTheFirstInnermost) {
  struct {
    Dimensions dimensions;
    std::vector<char> bytes;
    std::string rows;
  } const cases[] = {
      {{{2, 3}}, shorts(12), "[[[1, 2], [3, 4], [5, 6]], [[7, 8], [9, 10], [11, 12]]]"},
      {{{2}, {9, 9}}, shorts(4), "[[1, 2], [3, 4]]"},
      {{{1, 2, 2}}, shorts(4), "[[[[1], [2]], [[3], [4]]]]"},
      {{{2, 2}}, shorts(7, 1), "[[[1, 2], [3, 4]]]"},
      {{{0, 3}}, shorts(6), "[]"},
      {{{3, 0}}, shorts(6), "[]"},
      {{{3, 2}}, {}, "[]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rows);
    const auto rank = static_cast<int>(c.dimensions[0].size());
    const auto schema = schemaBuilder::getSchemaWithDimensionsPreserved(Int16, "data", rank);
    const auto buffer = c.bytes.empty() ? nullptr : borrowBuffer(c.bytes.data(), c.bytes.size());
    SignalFormatter formatter;
    const auto table = formatter.formatMatrixPreserveDimension(buffer, Int16, schema, c.dimensions);
    expectColumns(table, schema, c.rows, "", c.bytes);
    auto deeper = c.dimensions;
    deeper[0].push_back(1);
    for (const auto& wrong : {deeper, Dimensions{{}}, Dimensions{}}) {
      EXPECT_THROW(formatter.formatMatrixPreserveDimension(buffer, Int16, schema, wrong),
                   std::invalid_argument);
    }
    for (const auto& shape : {Dimensions{{1}}, Dimensions{}}) {  // the type is looked at first
      EXPECT_THAT([&] { formatter.formatMatrixPreserveDimension(buffer, Null, schema, shape); },
                  ThrowsMessage<std::runtime_error>("Null data type encountered."));
    }
  }
}

TEST(SignalFormatter, ReconstructAppendsTheBytesAndReplacesTheRest) {
  const auto& int16 = ::arrow::int16();
  const auto lists = ::arrow::list(int16);
  const auto extents = ::arrow::list(::arrow::uint64());
  const TablePtr blobs = tableOf({{"data", column(::arrow::binary(), {R"(["ab", "", "c"])"})}});
  const TablePtr shaped = tableOf({{"dimension", column(extents, {"[[9], [2, 1]]", "[[]]"})},
                                   {"data", column(lists, {"[[9], [1, 2]]", "[[3]]"})}});
  struct {
    const char* name;
    TablePtr table;
    std::vector<char> bytes;
    std::optional<Dimensions> dimensions;
    std::optional<std::vector<int>> sizes;
  } const cases[] = {
      {"flat, in chunks", tableOf({{"data", column(int16, {"[1]", "[2, 3]"})}}), shorts(3), {}, {}},
      {"flat, a slice",
       tableOf({{"data", column(int16, {"[0, 1, 2]", "[3]"})}})->Slice(1),
       shorts(3),
       {},
       {}},
      {"lists",
       tableOf({{"data", column(lists, {"[[1, 2], []]", "[[3]]"})}}),
       shorts(3),
       {},
       {{2, 0, 1}}},
      {"a slice with shapes", shaped->Slice(1), shorts(3), {{{2, 1}, {}}}, {{2, 1}}},
      {"lists in lists",
       tableOf({{"data", column(::arrow::list(lists), {"[[[1], [2, 3]]]"})}}),
       shorts(3),
       {},
       {{2}}},
      {"blobs", blobs, {'a', 'b', 'c'}, {}, {{2, 0, 1}}},
      {"a slice of blobs", blobs->Slice(1), {'c'}, {}, {{0, 1}}},
      {"texts",
       tableOf({{"data", column(::arrow::utf8(), {R"(["a"])", R"(["bc"])"})}}),
       {'a', 'b', 'c'},
       {},
       {{1, 2}}},
      {"no rows", shaped->Slice(3), {}, {{}}, {{}}},
      {"no data column", tableOf({{"x", column(int16, {"[1]"})}}), {}, {}, {{7}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<char> bytes{'!'};
    std::optional<Dimensions> dimensions{{{7}}};
    std::optional<std::vector<int>> sizes{{7}};
    SignalFormatter().reconstruct(c.table, bytes, dimensions, sizes);
    std::vector<char> expected = c.bytes;
    expected.insert(expected.begin(), '!');
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(dimensions, c.dimensions);
    EXPECT_EQ(sizes, c.sizes);
  }
}

TEST(SignalFormatter, ReconstructNamesTheColumnThatNoSignalHas) {
  const auto& int16 = ::arrow::int16();
  const auto good = column(int16, {"[1]"});
  const std::pair<std::string, TablePtr> cases[] = {
      {R"("data" holds 1 nulls)", tableOf({{"data", column(int16, {"[1, null]"})}})},
      {R"("data" holds 1 nulls)",
       tableOf({{"data", column(::arrow::list(int16), {"[[1, null]]"})}})},
      {R"("data" holds 1 nulls)", tableOf({{"data", column(::arrow::binary(), {"[null]"})}})},
      {R"("data" has elements of type bool)",
       tableOf({{"data", column(::arrow::boolean(), {"[true]"})}})},
      {R"("dimension" is int16)", tableOf({{"data", good}, {"dimension", good}})},
      {R"("dimension" is list<item: int16>)",
       tableOf({{"data", good}, {"dimension", column(::arrow::list(int16), {"[[1]]"})}})},
      {R"("dimension" holds 1 nulls)",
       tableOf(
           {{"data", good}, {"dimension", column(::arrow::list(::arrow::uint64()), {"[null]"})}})},
  };
  std::vector<char> bytes;
  std::optional<Dimensions> dimensions;
  std::optional<std::vector<int>> sizes;
  for (const auto& c : cases) {
    EXPECT_THAT([&] { SignalFormatter().reconstruct(c.second, bytes, dimensions, sizes); },
                ThrowsMessage<std::runtime_error>(HasSubstr(c.first)));
  }
  EXPECT_THROW(SignalFormatter().reconstruct(nullptr, bytes, dimensions, sizes),
               std::invalid_argument);
}

}  // namespace
}  // namespace kyr::parquet
