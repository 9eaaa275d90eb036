#include <arrow/api.h>
#include <arrow/io/memory.h>
#include <gtest/gtest.h>
#include <parquet/arrow/reader.h>
#include <parquet/exception.h>
#include <parquet/metadata.h>
#include <parquet/statistics.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "files/FileLayout.h"
#include "files/pack/PackSchema.h"

namespace kyr::parquet {
namespace {

using ::arrow::Compression;
using ::parquet::Encoding;

constexpr EncodingChoice kAll{true, true, true};
constexpr EncodingChoice kPortable{true, true, false};

std::shared_ptr<::parquet::WriterProperties> properties(
    Compression::type codec = Compression::UNCOMPRESSED, bool dictionary = true) {
  ::parquet::WriterProperties::Builder builder;
  builder.version(::parquet::ParquetVersion::PARQUET_2_6)
      ->data_page_version(::parquet::ParquetDataPageVersion::V2)
      ->disable_statistics()
      ->compression(codec);
  if (!dictionary) builder.disable_dictionary();
  return builder.build();
}

using Samples = std::function<double(std::size_t)>;

template <typename Type>
std::shared_ptr<::arrow::Table> tableOf(std::size_t rows, const Samples& sample,
                                        std::size_t from = 0) {
  std::vector<typename Type::c_type> values;
  for (std::size_t i = from; i < from + rows; ++i) {
    values.push_back(static_cast<typename Type::c_type>(sample(i)));
  }
  const auto array = std::make_shared<typename ::arrow::TypeTraits<Type>::ArrayType>(
      static_cast<std::int64_t>(rows), ::arrow::Buffer::FromVector(std::move(values)));
  const auto schema =
      ::arrow::schema({::arrow::field("data", ::arrow::TypeTraits<Type>::type_singleton())});
  return ::arrow::Table::Make(schema, {array});
}

std::shared_ptr<::arrow::Buffer> written(const FileLayout& layout,
                                         const std::vector<const ::arrow::Table*>& rowGroups) {
  PARQUET_ASSIGN_OR_THROW(const auto sink, ::arrow::io::BufferOutputStream::Create());
  layout.write(sink, nullptr, rowGroups);
  PARQUET_ASSIGN_OR_THROW(auto file, sink->Finish());
  return file;
}

std::unique_ptr<::parquet::arrow::FileReader> opened(const std::shared_ptr<::arrow::Buffer>& file) {
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  PARQUET_THROW_NOT_OK(::parquet::arrow::OpenFile(std::make_shared<::arrow::io::BufferReader>(file),
                                                  ::arrow::default_memory_pool(), &reader));
  return reader;
}

void expectSameValues(const ::arrow::Table& there, const ::arrow::Table& expected) {
  const auto all = there.CombineChunks().ValueOrDie();
  const auto& a = *all->column(0)->chunk(0)->data();
  const auto& b = *expected.column(0)->chunk(0)->data();
  ASSERT_EQ(a.length, b.length);
  const auto bytes = static_cast<std::size_t>(a.length * a.type->byte_width());
  EXPECT_EQ(std::memcmp(a.buffers[1]->data(), b.buffers[1]->data(), bytes), 0);
}

bool uses(const ::parquet::ColumnChunkMetaData& chunk, Encoding::type encoding) {
  const auto& all = chunk.encodings();
  return std::find(all.begin(), all.end(), encoding) != all.end();
}

double noise(std::size_t i) {
  std::mt19937_64 bits(i);
  return std::normal_distribution<double>()(bits);
}
double repeating(std::size_t i) { return std::round(noise(i) * 100) / 64; }

TEST(FileLayout, ChoosesAnEncodingThatSuitsTheSamples) {
  constexpr std::size_t kRows = 40000;
  struct Case {
    std::string name;
    std::shared_ptr<::arrow::Table> table;
    EncodingChoice choice;
    Encoding::type encoding;
    double share;  // the file is at most this part of a plain one
  };
  using Double = ::arrow::DoubleType;
  const Samples clock = [](std::size_t i) { return static_cast<double>(i) * 0.001; };
  const Samples counter = [](std::size_t i) { return static_cast<double>(i % 30000); };
  const Samples wave = [](std::size_t i) { return 900 * std::sin(double(i) / 500) + 3 * noise(i); };
  const std::vector<Case> cases = {
      {"noise", tableOf<Double>(kRows, noise), kAll, Encoding::PLAIN, 1.001},
      {"repeating", tableOf<Double>(kRows, repeating), kAll, Encoding::RLE_DICTIONARY, 0.2},
      {"constant", tableOf<Double>(kRows, [](auto) { return -0.0; }), kAll,
       Encoding::RLE_DICTIONARY, 0.003},
      {"steps", tableOf<Double>(kRows, [](auto i) { return std::floor(double(i) / 1000); }), kAll,
       Encoding::RLE_DICTIONARY, 0.01},
      {"clock", tableOf<Double>(kRows, clock), kAll, Encoding::BYTE_STREAM_SPLIT, 0.05},
      {"clock, portable", tableOf<Double>(kRows, clock), kPortable, Encoding::PLAIN, 0.4},
      {"float as double", tableOf<Double>(kRows, [](auto i) { return double(float(noise(i))); }),
       kAll, Encoding::BYTE_STREAM_SPLIT, 0.6},
      {"float clock", tableOf<::arrow::FloatType>(kRows, clock), kAll, Encoding::BYTE_STREAM_SPLIT,
       0.3},
      {"nan",
       tableOf<Double>(
           kRows,
           [](auto i) { return i % 3 == 0 ? std::numeric_limits<double>::quiet_NaN() : 1.0; }),
       kAll, Encoding::RLE_DICTIONARY, 0.05},
      {"wave", tableOf<::arrow::Int16Type>(kRows, wave), kAll, Encoding::DELTA_BINARY_PACKED, 0.3},
      {"counter", tableOf<::arrow::UInt64Type>(kRows, counter), kAll, Encoding::DELTA_BINARY_PACKED,
       0.01},
      {"bytes", tableOf<::arrow::UInt8Type>(kRows, [](auto i) { return double(i * i % 251); }),
       kAll, Encoding::RLE_DICTIONARY, 0.3},
      {"wide integers", tableOf<::arrow::Int64Type>(kRows, [](auto i) { return noise(i) * 1e18; }),
       kAll, Encoding::PLAIN, 1.001},
      {"few", tableOf<Double>(100, repeating), kAll, Encoding::PLAIN, 1.1},
  };
  for (const auto& [name, table, choice, encoding, share] : cases) {
    SCOPED_TRACE(name);
    const auto file = written(FileLayout(*table->schema(), properties(), choice), {table.get()});
    const auto plain =
        written(FileLayout(*table->schema(), properties(Compression::UNCOMPRESSED, false), {}),
                {table.get()});
    EXPECT_LE(static_cast<double>(file->size()), share * static_cast<double>(plain->size()));
    const auto reader = opened(file);
    std::shared_ptr<::arrow::Table> there;
    PARQUET_THROW_NOT_OK(reader->ReadTable(&there));
    expectSameValues(*there, *table);
    const auto chunk = reader->parquet_reader()->metadata()->RowGroup(0)->ColumnChunk(0);
    EXPECT_TRUE(uses(*chunk, encoding));
    EXPECT_EQ(chunk->has_dictionary_page(), encoding == Encoding::RLE_DICTIONARY);
  }
}

TEST(FileLayout, NoRowGroupIsLargerThanPlain) {
  // The sampled values repeat but the others do not, and row groups differ.
  constexpr std::size_t kRows = 30000;
  const Samples mostlyNoise = [](std::size_t i) { return i % 29 == 0 ? 1.0 : noise(i); };
  const auto a = tableOf<::arrow::DoubleType>(kRows, repeating);
  const auto b = tableOf<::arrow::DoubleType>(kRows, noise);
  const auto c = tableOf<::arrow::DoubleType>(kRows, mostlyNoise);
  const FileLayout layout(*a->schema(), properties(), kAll);
  PARQUET_ASSIGN_OR_THROW(const auto sink, ::arrow::io::BufferOutputStream::Create());
  for (const auto encoding : {Encoding::RLE_DICTIONARY, Encoding::BYTE_STREAM_SPLIT}) {
    PARQUET_ASSIGN_OR_THROW(const auto forced, ::arrow::io::BufferOutputStream::Create());
    layout.write(forced, nullptr, {b.get(), c.get()}, ColumnEncoding{encoding, Compression::ZSTD});
    PARQUET_ASSIGN_OR_THROW(const auto file, forced->Finish());
    EXPECT_LE(file->size(), 2 * kRows * sizeof(double) * 101 / 100);
  }
  const auto file = written(layout, {b.get(), a.get(), c.get()});
  const auto reader = opened(file);
  for (const auto& [group, rows] : {std::pair(0, b), std::pair(1, a), std::pair(2, c)}) {
    std::shared_ptr<::arrow::Table> there;
    PARQUET_THROW_NOT_OK(reader->ReadRowGroup(group, &there));
    expectSameValues(*there, *rows);
  }
}

TEST(FileLayout, KeepsToWhatTheUserAskedFor) {
  const auto table = tableOf<::arrow::DoubleType>(20000, repeating);
  struct Case {
    Compression::type codec;
    bool dictionary;
    EncodingChoice choice;
  };
  for (const auto& [codec, dictionary, choice] : {
           Case{Compression::SNAPPY, true, {true, false, true}},
           Case{Compression::UNCOMPRESSED, true, {true, false, true}},
           Case{Compression::UNCOMPRESSED, false, {true, false, true}},
           Case{Compression::GZIP, false, {false, false, false}},
       }) {
    const auto file =
        written(FileLayout(*table->schema(), properties(codec, dictionary), choice), {table.get()});
    const auto reader = opened(file);
    const auto chunk = reader->parquet_reader()->metadata()->RowGroup(0)->ColumnChunk(0);
    EXPECT_EQ(chunk->compression(), codec);
    EXPECT_EQ(chunk->has_dictionary_page(), dictionary);
    std::shared_ptr<::arrow::Table> there;
    PARQUET_THROW_NOT_OK(reader->ReadTable(&there));
    expectSameValues(*there, *table);
  }
}

// What a row group says about the order of its only column.
struct Order {
  bool isSorted = false;
  std::vector<double> range;  // least and greatest value, if they are there
};

Order orderOf(const ::parquet::FileMetaData& metadata, int group) {
  const auto rowGroup = metadata.RowGroup(group);
  const auto sorting = rowGroup->sorting_columns();
  Order order;
  order.isSorted = sorting.size() == 1 && sorting[0].column_idx == 0 && !sorting[0].descending &&
                   !sorting[0].nulls_first;
  const auto statistics = rowGroup->ColumnChunk(0)->statistics();
  if (statistics && statistics->HasMinMax()) {
    const auto& range = static_cast<const ::parquet::DoubleStatistics&>(*statistics);
    order.range = {range.min(), range.max()};
  }
  return order;
}

// The ids of runs, of which no two that follow each other are of the same content.
std::vector<IdRun> randomRuns(std::mt19937& random, std::size_t rows, std::size_t longest) {
  std::vector<IdRun> runs;
  for (std::size_t at = 0; at < rows;) {
    int id = static_cast<int>(random() % 300);
    if (!runs.empty() && id == runs.back().first) ++id;
    const std::size_t count = std::min<std::size_t>(1 + random() % longest, rows - at);
    runs.emplace_back(id, count);
    at += count;
  }
  return runs;
}

TEST(FileLayout, RunsOfStorageIdsAreWrittenLikeTheIdsOfAllRows) {
  const auto schema = packSchema(*::arrow::schema({::arrow::field("data", ::arrow::float64())}));
  const FileLayout layout(*schema, properties(Compression::UNCOMPRESSED, false), {});
  std::mt19937 random(7);
  for (const auto& [rows, longest] : std::vector<std::pair<std::size_t, std::size_t>>{
           {10, 1}, {1000, 20}, {5000, 100}, {65536, 65536}, {200000, 90}, {200000, 70000}}) {
    SCOPED_TRACE(testing::Message() << rows << " rows in runs of " << longest);
    const std::vector<IdRun> runs = randomRuns(random, rows, longest);
    const auto samples = tableOf<::arrow::DoubleType>(
        rows, [](std::size_t i) { return 0.5 * static_cast<double>(i); });
    const auto fileOf = [&](bool mayBeRuns) {
      auto columns = samples->columns();
      columns.push_back(std::make_shared<::arrow::ChunkedArray>(storageIdsOf(runs, mayBeRuns)));
      const auto table = ::arrow::Table::Make(schema, std::move(columns));
      return written(layout, {table.get()});
    };
    const auto file = fileOf(true);
    std::shared_ptr<::arrow::Table> there;
    PARQUET_THROW_NOT_OK(opened(file)->ReadTable(&there));
    const auto ids = storageIdsOf(runs, false);
    EXPECT_TRUE(there->column(1)->Equals(::arrow::ChunkedArray(ids)));
    expectSameValues(*there, *samples);
    const auto& plain = static_cast<const ::arrow::Int32Array&>(*ids);
    const bool beginsWithRun =
        plain.Value(0) == plain.Value(std::min<std::int64_t>(7, plain.length() - 1));
    if (beginsWithRun) {
      EXPECT_TRUE(file->Equals(*fileOf(false)));
    }
  }
}

TEST(FileLayout, OnlyRowGroupsOfAscendingTimesSayThatTheyAreSorted) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const auto descendsAt = [](std::size_t at) {
    return tableOf<::arrow::DoubleType>(3000,
                                        [=](auto i) { return double(i) - (i == at ? 2 : 0); });
  };
  const auto samples = [](const std::vector<double>& values) {
    return tableOf<::arrow::DoubleType>(values.size(), [&](auto i) { return values[i]; });
  };
  struct Case {
    const char* name;
    std::shared_ptr<::arrow::Table> table;
    std::vector<double> range;  // empty if the row group must not be marked
  };
  const std::vector<Case> cases = {
      {"clock", samples({0.5, 1, 1, 1, 7}), {0.5, 7}},
      {"descends in the first block", descendsAt(500), {}},
      {"one", samples({3}), {3, 3}},
      {"descends between two blocks", descendsAt(1024), {}},
      {"descends at the end", descendsAt(2999), {}},
      {"ascends over blocks", descendsAt(9999), {0, 2999}},
      {"a NaN", samples({1, kNan, 3}), {}},
      {"a NaN first", samples({kNan, 1}), {}},
      {"a single NaN", samples({kNan}), {}},
      {"infinite", samples({-kInfinity, 0, kInfinity}), {-kInfinity, kInfinity}},
      {"zeros of both signs", samples({0.0, -0.0}), {-0.0, 0.0}},
      {"no rows", samples({}), {}},
  };
  std::vector<const ::arrow::Table*> rowGroups;
  rowGroups.reserve(cases.size());
  for (const Case& each : cases) rowGroups.push_back(each.table.get());
  const FileLayout layout(*cases[0].table->schema(), properties(), kAll);
  const auto file = written(layout, rowGroups);
  const auto metadata = opened(file)->parquet_reader()->metadata();
  ASSERT_EQ(metadata->num_row_groups(), static_cast<int>(cases.size()));
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].name);
    const Order order = orderOf(*metadata, static_cast<int>(i));
    EXPECT_EQ(order.isSorted, !cases[i].range.empty());
    EXPECT_EQ(order.range, cases[i].range);
    if (order.range == std::vector<double>{0, 0}) {
      EXPECT_TRUE(std::signbit(order.range[0]) && !std::signbit(order.range[1]));
    }
    std::shared_ptr<::arrow::Table> there;
    PARQUET_THROW_NOT_OK(opened(file)->ReadRowGroup(static_cast<int>(i), &there));
    if (there->num_rows() > 0) expectSameValues(*there, *cases[i].table);
  }

  const auto counter = tableOf<::arrow::Int64Type>(5, [](auto i) { return double(i); });
  const auto unmarked = [](const ::arrow::Table& table, EncodingChoice choice) {
    const auto other = written(FileLayout(*table.schema(), properties(), choice), {&table});
    const Order order = orderOf(*opened(other)->parquet_reader()->metadata(), 0);
    return !order.isSorted && order.range.empty();
  };
  EXPECT_TRUE(unmarked(*counter, kAll));
  EXPECT_TRUE(unmarked(*cases[0].table, {}));  // encoded as the options say
}

}  // namespace
}  // namespace kyr::parquet
