#include <arrow/type.h>
#include <gmock/gmock.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "schema/ContentDigester.h"

namespace kyr::parquet {
namespace {

SampleSchema schemaOf(KYRSignalCategory category, KYRSignalDataType type) {
  return SampleSchema(
      schemaBuilder::getSchema(category, type, /*includeTime=*/false, columnNames::data));
}

// Rows of random values; lists and blobs have 0 to 3 elements.
RowStore randomRows(const SampleSchema& schema, std::size_t rows, unsigned seed) {
  std::mt19937 random(seed);
  RowStore store(schema, elementBytes(schema));
  store.refill(rows, [&](ByteBuffer& elements, RowShapes& shapes) {
    std::size_t bytes = rows * store.width();
    if (schema.kind != ColumnKind::flat) {
      std::uint64_t end = 0;
      for (std::size_t i = 0; i < rows; ++i) {
        const std::uint64_t length = random() % 4;
        shapes.rowEnds.push_back(end += length);
        if (schema.dimensionIndex < 0) continue;
        shapes.extents.push_back(length);
        if (random() % 2 == 0) shapes.extents.push_back(1);
        shapes.extentEnds.push_back(shapes.extents.size());
      }
      bytes = end * store.width();
    }
    elements.extend(bytes);
    for (std::size_t i = 0; i < bytes; ++i) elements.data()[i] = static_cast<char>(random());
  });
  return store;
}

// \param cuts  where a piece begins, besides row 0
std::string digestOf(const RowStore& rows, const std::set<std::size_t>& cuts = {},
                     const double* times = nullptr) {
  ContentDigester digester(rows.schema(), times != nullptr);
  std::size_t from = 0;
  const auto addTo = [&](std::size_t to) {
    digester.add(rows.slice(from, to - from), times == nullptr ? nullptr : times + from);
    EXPECT_FALSE(digester.digest().empty());  // it may be asked for at any time
    from = to;
  };
  for (const std::size_t cut : cuts) addTo(cut);
  addTo(rows.rows());
  return digester.digest();
}

TEST(ContentDigester, TheDigestDoesNotDependOnHowTheRowsComeInPieces) {
  constexpr std::size_t kBlock = ContentDigester::kBlockRows;
  std::mt19937 random(7);
  for (const auto& schema :
       {schemaOf(Scalar, Double), schemaOf(Scalar, Int16), schemaOf(FixedDim, Single),
        schemaOf(VarDim, UInt8), schemaOf(Bus, Binary), schemaOf(VarDimBus, Binary)}) {
    for (const std::size_t count : {1UL, 1000UL, kBlock - 1, kBlock, kBlock + 1, 3 * kBlock + 5}) {
      const RowStore rows = randomRows(schema, count, 1);
      const std::vector<double> times(count, 0.25);
      for (const double* time : {static_cast<const double*>(nullptr), times.data()}) {
        const std::string expected = digestOf(rows, {}, time);
        std::set<std::size_t> some;
        while (some.size() < std::min<std::size_t>(9, count)) some.insert(random() % count);
        std::set<std::size_t> blocks;
        for (std::size_t cut = kBlock; cut < count; cut += kBlock) blocks.insert(cut);
        EXPECT_EQ(digestOf(rows, some, time), expected) << schema.schema->ToString() << count;
        EXPECT_EQ(digestOf(rows, blocks, time), expected) << schema.schema->ToString() << count;
        if (time != nullptr) continue;
        for (const std::size_t first : {std::size_t{0}, count / 2}) {
          ContentDigester digester(schema);
          digester.add(rows.slice(0, first));
          digester.addLast(rows.slice(first));
          EXPECT_EQ(digester.digest(), expected) << schema.schema->ToString() << count;
        }
      }
    }
  }
}

TEST(ContentDigester, EveryDifferenceOfRowsShapesAndTypesShows) {
  std::set<std::string> digests;
  std::size_t contents = 0;
  const auto note = [&](const SampleSchema& schema, const std::string& elements, std::size_t rows,
                        const RowShapes& shapes, const std::vector<double>& times = {}) {
    RowStore store(schema, elementBytes(schema));
    store.refill(rows, [&](ByteBuffer& bytes, RowShapes& ends) {
      bytes.append(elements.data(), elements.size());
      ends = shapes;
    });
    digests.insert(digestOf(store, {}, times.empty() ? nullptr : times.data()));
    ++contents;
  };
  const std::string zeros(16, '\0');
  note(schemaOf(Scalar, Double), zeros, 2, {});
  note(schemaOf(Scalar, Double), zeros.substr(8), 1, {});
  note(schemaOf(Scalar, Double), std::string(15, '\0') + '\x80', 2, {});  // -0
  note(schemaOf(Scalar, Double), zeros, 2, {}, {0, 0});
  note(schemaOf(Scalar, Double), zeros, 2, {}, {0, 1});
  note(schemaOf(Scalar, Int64), zeros, 2, {});
  note(schemaOf(Scalar, UInt64), zeros, 2, {});
  note(schemaOf(Scalar, Int8), zeros, 16, {});
  for (const std::uint64_t end : {0U, 1U, 2U}) {
    note(schemaOf(FixedDim, Double), zeros, 2, {{end, 2}, {}, {}});
    note(schemaOf(VarDim, Double), zeros, 2, {{end, 2}, {end, 2 - end}, {1, 2}});
    note(schemaOf(Bus, Binary), zeros, 2, {{end, 16}, {}, {}});
  }
  note(schemaOf(VarDim, Double), zeros, 1, {{2}, {1, 2}, {2}});
  note(schemaOf(VarDim, Double), zeros, 1, {{2}, {2, 1}, {2}});
  note(schemaOf(FixedDim, Single), zeros, 2, {{2, 4}, {}, {}});
  note(schemaOf(VarDimBus, Binary), zeros, 2, {{8, 16}, {8, 8}, {1, 2}});
  EXPECT_EQ(digests.size(), contents);
}

}  // namespace
}  // namespace kyr::parquet
