#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <variant>

#include "kyr/parquet/SignalPool.h"
#include "kyr/platform/FileSystem.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::Folder;
using test::Names;
using test::read;
using test::Samples;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

class SignalPoolTest : public test::StorageTest {
 protected:
  // Signal \p id of int8 scalars.
  static std::shared_ptr<ParquetSignal> signal(SignalPool& from, int id) {
    auto result = from.getSignal(id);
    result->setCategory(Scalar);
    result->setDataType(Int8);
    return result;
  }
  static std::shared_ptr<ParquetSignal> record(SignalPool& in, int id, const Samples& samples) {
    auto result = signal(in, id);
    test::write(*result, samples);
    return result;
  }
  static Samples recorded(SignalPool& in, int id) { return read(*signal(in, id)); }

  static Names recordsOf(const SignalPool& pool) {
    Names result;
    for (const auto& entry : nlohmann::json::parse(pool.serializeSignalRecords())) {
      result.insert(entry.dump());
    }
    return result;
  }

  SignalPool pool{store.path()};
  const Samples one{{0.5}, {1}, {}, {}};
  const Samples two{{0.5}, {2}, {}, {}};
};

TEST_F(SignalPoolTest, SignalExistsWhenAskedForAndOwnsDataWhenWritten) {
  EXPECT_TRUE(pool.isEmpty());
  EXPECT_FALSE(pool.checkSignalExists(7));
  const auto asked = pool.getSignal(7);
  EXPECT_EQ(pool.getSignal(7), asked);
  EXPECT_TRUE(pool.checkSignalExists(7));
  EXPECT_FALSE(pool.isEmpty() || pool.isDataOwner(7) || pool.isDataOwner(8));
  record(pool, 7, one);
  EXPECT_TRUE(pool.isDataOwner(7));
  pool.deleteSignal(8);
  pool.deleteSignal(7);
  EXPECT_TRUE(pool.isEmpty());
  EXPECT_EQ(read(*asked), one);  // the caller still has it
}

TEST_F(SignalPoolTest, DirectoryIsCreatedAndStaysWithoutItsFiles) {
  const Folder nested(temp.file("a/b"));
  test::fs::remove_all(temp.file("a"));
  auto named = std::make_unique<SignalPool>(nested.path());
  record(*named, 1, one);
  EXPECT_EQ(nested.names().size(), 2U);
  named.reset();
  EXPECT_EQ(nested.names(), Names{});

  const Path fresh = SignalPool().getParquetDirectory();
  EXPECT_THAT(fresh.toNarrow(), ::testing::StartsWith(temp.file("parquetStorage_").string()));
  EXPECT_TRUE(fileSystem::isDirectory(fresh));
}

TEST_F(SignalPoolTest, SignalsKeptOverAResetKeepTheirData) {
  auto kept = record(pool, 1, one);
  pool.reset();
  const Path fresh = pool.getParquetDirectory();
  EXPECT_NE(fresh, store.path());
  EXPECT_TRUE(pool.isEmpty());
  EXPECT_EQ(read(*kept), one);
  record(pool, 1, two);
  EXPECT_EQ(Folder(fresh.toFilesystem()).names().size(), 2U);
  pool.reset(store.path());
  EXPECT_TRUE(pool.isEmpty());
  EXPECT_EQ(Folder(fresh.toFilesystem()).names(), Names{});
  kept.reset();
  EXPECT_EQ(store.names(), Names{});
}

TEST_F(SignalPoolTest, StreamableSignalsAreOfTheOtherMode) {
  pool.getSignal(1);
  EXPECT_EQ(pool.getStreamableSignal(1), nullptr);
  EXPECT_THROW(pool.getStreamableSignal(2), std::runtime_error);
  EXPECT_FALSE(pool.checkSignalExists(2));
  FeatureFlag::set("fKYRUseParquetRowGroup", true);
  EXPECT_THROW(pool.isDataOwner(1), std::bad_variant_access);
  EXPECT_FALSE(pool.isDataOwner(2));
}

TEST_F(SignalPoolTest, RecordsAreCompactSortedAndOnlyThoseOfSignalsWithData) {
  pool.getSignal(9);
  EXPECT_EQ(pool.serializeSignalRecords(), "[]");
  const std::string three = R"({"dataStorageId":[1],"signalId":3,"timeStorageId":[0]})";
  record(pool, 3, one);
  EXPECT_EQ(pool.serializeSignalRecords(), "[" + three + "]");
  serialization_options::bSharedTimeColumn = false;
  record(pool, -5, two);
  EXPECT_EQ(recordsOf(pool),
            (Names{three, R"({"dataStorageId":[2],"signalId":-5,"timeStorageId":[-554114]})"}));
}

TEST_F(SignalPoolTest, RecordsRebuildTheSignalsInAnotherPool) {
  record(pool, 3, one);
  serialization_options::bSharedTimeColumn = false;
  record(pool, 5, two);
  SignalPool other(store.path());
  other.deserializeSignalRecords(pool.serializeSignalRecords());
  EXPECT_EQ(recordsOf(other), recordsOf(pool));
  EXPECT_TRUE(other.isDataOwner(3));
  EXPECT_EQ(recorded(other, 5), two);
  pool.deleteSignal(5);  // the file is there once: whoever lets go first deletes it
  EXPECT_THROW(recorded(other, 5), std::runtime_error);
}

TEST_F(SignalPoolTest, RecordsReplaceTheirOwnSignalsOnlyAndTheLastOneWins) {
  record(pool, 1, one);  // files 0 and 1
  record(pool, 2, two);  // files 0 and 2
  pool.deserializeSignalRecords(
      R"([{"signalId":1,"timeStorageId":[0],"dataStorageId":[1,99]},
          {"signalId":3,"timeStorageId":[0],"dataStorageId":[1]},
          {"signalId":3,"timeStorageId":[0],"dataStorageId":[2]},
          {"signalId":4,"timeStorageId":[50],"dataStorageId":[51]}])");
  pool.deleteSignal(2);
  EXPECT_EQ(recorded(pool, 1), one);
  EXPECT_EQ(recorded(pool, 3), two);  // by references of its own
  EXPECT_FALSE(pool.isDataOwner(4));  // no such files
  EXPECT_EQ(pool.getSignal(4)->getStorageId(1), 51);
}

TEST_F(SignalPoolTest, MalformedRecordsKeepTheSignalsBeforeThem) {
  record(pool, 1, one);
  pool.deserializeSignalRecords("null");
  for (const char* text : {"", "[{}", "[] // none"}) {
    EXPECT_THROW(pool.deserializeSignalRecords(text), nlohmann::json::parse_error);
  }
  const std::string good = R"({"signalId":20,"timeStorageId":[0],"dataStorageId":[1]})";
  const char* const emptyIds = R"({"signalId":21,"timeStorageId":[],"dataStorageId":[1]})";
  for (const std::string bad :
       {"7", R"({"signalId":21,"timeStorageId":[0]})",
        R"({"signalId":21,"timeStorageId":0,"dataStorageId":[1]})",
        R"({"signalId":"21","timeStorageId":[0],"dataStorageId":[1]})",
        R"({"signalId":21,"timeStorageId":["0"],"dataStorageId":[1]})", emptyIds}) {
    SCOPED_TRACE(bad);
    pool.deleteSignal(20);
    EXPECT_THROW(pool.deserializeSignalRecords("[" + good + "," + bad + "]"), std::exception);
    EXPECT_TRUE(pool.isDataOwner(20));
    EXPECT_FALSE(pool.checkSignalExists(21));
  }
  EXPECT_THAT([&] { pool.deserializeSignalRecords(std::string("[") + emptyIds + "]"); },
              ThrowsMessage<std::invalid_argument>(HasSubstr("signal record 21")));
  pool.deleteSignal(20);
  pool.deserializeSignalRecords("{\"any key\":" + good + "}");
  EXPECT_EQ(recorded(pool, 20), one);
}

}  // namespace
}  // namespace kyr::parquet
