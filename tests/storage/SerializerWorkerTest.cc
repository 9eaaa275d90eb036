#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <stdexcept>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/StreamableWriter.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using ::arrow::Compression;
using test::Names;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Ints = std::vector<int>;

constexpr int kNoId = std::numeric_limits<int>::min();

class SerializerWorker : public test::StorageTest {
 protected:
  SerializerWorker() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Makes files of these names in the storage directory and opens a worker over it.
  void reopen(const Names& files) {
    for (const auto& name : files) store.touch(name);
    worker = openWorker();
  }
  int writeTable(const ParquetSerializerWorker::Compression& codec = {}) const {
    return worker->write(*table, codec);
  }
  int writeContent(const Ints& values) const {
    return worker->writeBinaryArray<int>(schema, values, {}, {}, {});
  }
  Ints readInts(int id) const {
    Ints values, offsets;
    test::Dims dims;
    worker->readBinaryArray<int>(id, values, offsets, dims);
    return values;
  }

  const std::shared_ptr<::arrow::Table> table =
      test::tableOf({{"data", test::column(::arrow::int32(), {"[1, 2]"})}});
  const std::shared_ptr<::arrow::Schema> schema =
      schemaBuilder::getSchema(Scalar, Int32, false, "data");
};

TEST_F(SerializerWorker, ReopenedDirectoryContinuesAtItsLargestId) {
  reopen({"3", "7"});
  EXPECT_EQ(worker->getLastAllocatedParquetStorageID(), 7);
  EXPECT_EQ(worker->getNextParquetStorageId(), 7);
  EXPECT_EQ(worker->getNextParquetStorageId(), 8);
  store.touch("20");
  worker->setParquetDirectory(store.path());  // rescans
  EXPECT_EQ(worker->getNextParquetStorageId(), 20);
}

TEST_F(SerializerWorker, WriteUnderAnIdWhoseFileExistsIsLostInSilence) {
  store.touch("7", "what is there");
  worker = openWorker();
  EXPECT_EQ(writeTable(), 7);
  EXPECT_EQ(store.contents("7"), "what is there");
  EXPECT_THAT(worker->lastWriteStatus().ToString(), HasSubstr(store.file(7).string()));
  EXPECT_EQ(worker->writeStatus(7), worker->lastWriteStatus());

  EXPECT_EQ(writeTable(), 8);
  EXPECT_TRUE(worker->lastWriteStatus().ok());
  EXPECT_FALSE(worker->writeStatus(7).ok());

  // An id can be written again once its file is deleted or empty.
  worker->remove(7);
  EXPECT_TRUE(worker->writeStatus(7).ok());
  store.touch("7");
  worker->writeHelper(*table, 7, {});
  EXPECT_TRUE(worker->writeStatus(7).ok());
  EXPECT_EQ(readInts(7), (Ints{1, 2}));
}

TEST_F(SerializerWorker, RemovingTheIdThatIsNextLowersTheCounter) {
  reopen({"3", "7"});
  worker->remove(7);
  worker->remove(7);  // does nothing: the id is not known any more
  EXPECT_EQ(worker->getLastAllocatedParquetStorageID(), 3);
  worker->remove(3);
  EXPECT_TRUE(worker->isParquetDirectoryEmpty());
  EXPECT_EQ(worker->getLastAllocatedParquetStorageID(), kNoId);
  EXPECT_EQ(writeTable(), kNoId);
  EXPECT_EQ(store.names(), Names{"-2147483648"});
  EXPECT_EQ(readInts(kNoId), (Ints{1, 2}));
  worker->remove(kNoId);  // is not the next id, so the counter stays
  EXPECT_EQ(worker->getNextParquetStorageId(), kNoId + 1);
}

TEST_F(SerializerWorker, FileGoesWithItsLastReference) {
  reopen({"0", "1"});
  // The id was known before, so allocating it counts no reference.
  ASSERT_EQ(worker->getNextParquetStorageId(), 1);
  struct {
    const char* name;
    std::function<int()> make;
    int checkouts;
    int removals;
  } const cases[] = {
      {"found", [] { return 0; }, 0, 1},
      {"found, allocated, checked out twice", [] { return 1; }, 2, 2},
      {"allocated", [&] { return writeTable(); }, 0, 1},
      {"allocated and checked out", [&] { return writeTable(); }, 1, 2},
      {"shared content", [&] { return writeContent({1}), writeContent({1}); }, 0, 2},
      {"the same content again", [&] { return writeContent({1}); }, 0, 1},
  };
  for (const auto& [name, make, checkouts, removals] : cases) {
    SCOPED_TRACE(name);
    const int id = make();
    for (int i = 0; i < checkouts; ++i) {
      worker->updateChunkIndex();  // scans the directory, and keeps the references
      worker->checkoutParquetFile(id);
    }
    for (int i = 0; i < removals; ++i) {
      EXPECT_TRUE(worker->checkDataChunkExists(id) && test::fs::exists(store.file(id)));
      worker->remove(id);
    }
    EXPECT_FALSE(worker->checkDataChunkExists(id) || test::fs::exists(store.file(id)));
  }
}

TEST_F(SerializerWorker, IdWithoutAFileStaysKnown) {
  const int id = worker->getNextParquetStorageId();
  worker->remove(id);
  EXPECT_TRUE(worker->checkDataChunkExists(id));
  EXPECT_THAT([&] { worker->read(id); },
              ThrowsMessage<std::runtime_error>(store.file(id).string() + " does not exists."));
  EXPECT_THAT([&] { worker->checkoutParquetFile(12); },
              ThrowsMessage<std::out_of_range>(HasSubstr("12")));
}

TEST_F(SerializerWorker, ScanTakesTheNumberThatANameBeginsWith) {
  const std::pair<std::string, int> cases[] = {
      {"12.tmp", 12}, {"007", 7}, {" 4x", 4}, {"-5", -5}, {"0x10", 0}, {"2147483647", 2147483647}};
  for (const auto& [name, id] : cases) {
    test::Folder folder(temp.file("scan" + name));
    test::fs::create_directory(folder.file(name));  // of any type
    EXPECT_EQ(ParquetSerializerWorker(folder.path()).getLastAllocatedParquetStorageID(), id);
  }
}

TEST_F(SerializerWorker, NameThatIsNoStorageIdFailsTheScanAndHarmsNoFile) {
  for (const char* name : {"3", "abc"}) store.touch(name);
  EXPECT_THROW(openWorker(), std::invalid_argument);
  EXPECT_THROW(worker->updateChunkIndex(), std::invalid_argument);
  EXPECT_TRUE(worker->isParquetDirectoryEmpty());
  test::fs::rename(store.file("abc"), store.file("2147483648"));
  EXPECT_THROW(openWorker(), std::out_of_range);
  EXPECT_EQ(store.names(), (Names{"3", "2147483648"}));
}

TEST_F(SerializerWorker, DirectoryIsSetOnceAndComparedAsText) {
  ParquetSerializerWorker late;
  late.setParquetDirectory(temp.path().join("missing"));
  EXPECT_THAT([&] { late.setParquetDirectory(temp.path().join("missing/")); },
              ThrowsMessage<std::runtime_error>("Parquet directory cannot be changed!"));
  EXPECT_EQ(late.parquetDirectory(), temp.path().join("missing"));
}

TEST_F(SerializerWorker, DestroyedItDeletesEveryFileItKnowsAndOnlyThose) {
  reopen({"3"});
  worker->checkoutParquetFile(writeTable());
  EXPECT_EQ(writeTable(), 4);
  for (const char* name : {"99", "note"}) store.touch(name);
  worker.reset();
  EXPECT_EQ(store.names(), (Names{"99", "note"}));
}

TEST_F(SerializerWorker, VectorThatIsHandedInAgainIsKnownByWhatItHolds) {
  std::vector<double> time{1, 2, 3};
  const auto idOf = [&](const std::vector<double>& values) {
    bool isKnown = false;
    return worker->getStorageIdForContent(values, {}, isKnown);
  };
  const std::vector<double> others{7, 8, 9};
  const int first = idOf(time);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(idOf(time), first);
    EXPECT_EQ(idOf(others), 1);
  }
  time[1] = 5;  // at the same address
  EXPECT_EQ(idOf(time), 2);
  EXPECT_EQ(idOf(time), 2);
  time[1] = 2;
  EXPECT_EQ(idOf(time), first);
  EXPECT_EQ(idOf(std::vector<double>(time)), first);
}

// A second write of the same content shares the file that could not be written.
TEST_F(SerializerWorker, ContentOfAFailedWriteIsSharedToo) {
  const int id = worker->writeBinaryArray<int>(schema, Ints{1}, {}, {}, Compression::LZO);
  EXPECT_EQ(writeContent({1}), id);
  EXPECT_FALSE(worker->writeStatus(id).ok());
}

TEST_F(SerializerWorker, WriteThatFailsAfterOpeningIsSilent) {
  for (const auto codec : {Compression::SNAPPY, Compression::GZIP, Compression::BROTLI,
                           Compression::ZSTD, Compression::LZ4}) {
    const int id = writeTable(codec);
    EXPECT_TRUE(worker->writeStatus(id).ok()) << worker->writeStatus(id);
    EXPECT_EQ(readInts(id), (Ints{1, 2}));
  }
  for (const auto codec : {Compression::LZ4_FRAME, Compression::LZO, Compression::BZ2}) {
    const int id = writeTable(codec);
    EXPECT_FALSE(worker->writeStatus(id).ok());
    EXPECT_EQ(readInts(id), Ints{});  // Parquet writes a footer without rows
  }
  test::fs::create_symlink("/dev/full", store.file("50"));
  worker->writeHelper(*table, 50, {});
  EXPECT_THAT(worker->writeStatus(50).ToString(), HasSubstr("No space left"));
}

// Parquet divides by a batch size of 0, and with a negative one it writes no rows and reports no
// error.
TEST_F(SerializerWorker, BatchSizeBelowOneFailsTheWrite) {
  for (const int batchSize : {0, -1, -3}) {
    serialization_options::batchSize = batchSize;
    worker = openWorker();
    EXPECT_THAT(worker->writeStatus(writeTable()).ToString(),
                HasSubstr("BatchSize is " + std::to_string(batchSize)));
    StreamableWriter stream(store.path());
    const int id = stream.create(*table->schema(), {});
    stream.write(id, *table);
    EXPECT_THAT(stream.writeStatus(id).ToString(), HasSubstr("BatchSize"));
    stream.close(id);
    EXPECT_EQ(stream.read(id, 0, 2)->num_rows(), 0);
    worker.reset();
  }
}

TEST_F(SerializerWorker, FileIsOneRowGroupUpToParquetsLimit) {
  Ints values(1048576, 7);
  EXPECT_EQ(test::metadataOf(store.file(writeContent(values)))->num_row_groups(), 1);
  values.push_back(8);
  const int id = writeContent(values);
  EXPECT_EQ(test::metadataOf(store.file(id))->num_row_groups(), 2);
  EXPECT_EQ(readInts(id), values);
}

TEST_F(SerializerWorker, FileThatCannotBeOpenedOrRemovedStopsTheProcess) {
  test::fs::create_directories(store.file("0/full"));
  EXPECT_DEATH(writeTable(), "ValueOrDie");
  EXPECT_DEATH(worker->read(0), "ValueOrDie");
  EXPECT_DEATH(openWorker(), "terminate");  // its destructor cannot remove the directory
}

}  // namespace
}  // namespace kyr::parquet
