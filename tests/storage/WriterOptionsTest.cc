#include <gtest/gtest.h>

#include "kyr/parquet/ParquetWriterOptions.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

namespace options = serialization_options;
using ::arrow::Compression;

class WriterOptions : public test::StorageTest {};

TEST_F(WriterOptions, AreThoseOfTheProcessWhenTheyWereMade) {
  const ParquetWriterOptions initial;
  options::bDictionary = false;
  options::dictionaryLimit = -1;
  options::batchSize = 7;
  options::compressionMethod = Compression::ZSTD;
  const ParquetWriterOptions withoutDictionary;
  options::bDictionary = true;
  const ParquetWriterOptions changed;

  struct {
    const ParquetWriterOptions& made;
    bool dictionary;
    std::int64_t limit;
    std::int64_t batch;
    Compression::type codec;
  } const cases[] = {
      {initial, true, 1048576, 4096, Compression::UNCOMPRESSED},
      {withoutDictionary, false, 1048576, 7, Compression::ZSTD},  // the limit is ignored
      {changed, true, -1, 7, Compression::ZSTD},
  };
  const auto path = ::parquet::schema::ColumnPath::FromDotString("data");
  for (const auto& [made, dictionary, limit, batch, codec] : cases) {
    EXPECT_EQ(made.buildWriterProperties()->compression(path), codec);
    const auto properties = made.buildWriterProperties(Compression::GZIP);
    EXPECT_EQ(properties->compression(path), Compression::GZIP);
    EXPECT_EQ(properties->dictionary_enabled(path), dictionary);
    EXPECT_EQ(properties->dictionary_pagesize_limit(), limit);
    EXPECT_EQ(properties->write_batch_size(), batch);
    EXPECT_FALSE(properties->statistics_enabled(path));
    EXPECT_EQ(properties->version(), ::parquet::ParquetVersion::PARQUET_2_6);
    EXPECT_EQ(properties->data_page_version(), ::parquet::ParquetDataPageVersion::V2);
    EXPECT_EQ(properties->max_row_group_length(), 1048576);
  }
}

TEST_F(WriterOptions, WorkerKeepsThoseItWasMadeWithAndASignalItsOwnCodec) {
  const auto before = worker;
  options::compressionMethod = Compression::SNAPPY;
  options::bDictionary = false;
  worker = openWorker();
  const auto table = test::tableOf({{"data", test::column(::arrow::int32(), {"[1, 1]"})}});
  before->writeHelper(*table, 100, {});
  worker->writeHelper(*table, 101, {});
  const auto plain = makeSignal(Scalar, Int8);
  test::write(*plain, {{0.5}, {1}, {}, {}});
  const auto zipped = makeSignal(Scalar, Int8);
  zipped->setParquetCompressionType(Compression::GZIP);
  test::write(*zipped, {{1.5}, {2}, {}, {}});

  struct {
    int id;
    Compression::type codec;
    bool dictionary;
  } const cases[] = {
      {100, Compression::UNCOMPRESSED, true},
      {101, Compression::SNAPPY, false},
      {plain->getStorageId(1), Compression::UNCOMPRESSED, false},
      {zipped->getStorageId(0), Compression::GZIP, false},
      {zipped->getStorageId(1), Compression::GZIP, false},
  };
  for (const auto& [id, codec, dictionary] : cases) {
    const auto metadata = test::metadataOf(store.file(id));  // owns the chunk of the next line
    const auto column = metadata->RowGroup(0)->ColumnChunk(0);
    EXPECT_EQ(column->compression(), codec);
    EXPECT_EQ(column->has_dictionary_page(), dictionary);
    EXPECT_FALSE(column->is_stats_set());
  }
}

}  // namespace
}  // namespace kyr::parquet
