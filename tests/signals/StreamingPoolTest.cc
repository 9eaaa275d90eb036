#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <variant>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::bytesOf;
using test::Folder;
using test::kNone;
using test::Names;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;
using Part = StreamableSignal::SignalPart;

// Pools are in row-group mode as long as it lives.
class RowGroupMode {
 public:
  RowGroupMode() { FeatureFlag::set("fKYRUseParquetRowGroup", true); }
  ~RowGroupMode() { FeatureFlag::set("fKYRUseParquetRowGroup", false); }
};

class StreamingPool : public test::StorageTest {
 protected:
  static void append(StreamableSignal& signal, double value) {
    signal.appendTime(&value, 1);
    value += 0.5;
    signal.appendData(&value, sizeof(value), {}, {});
  }

  static std::vector<char> timesOf(StreamableSignal& signal) {
    std::vector<char> bytes;
    signal.getTime(0, 100, bytes);
    return bytes;
  }

  static std::set<std::string> records(const SignalPool& pool) {
    std::set<std::string> result;
    for (const auto& record : nlohmann::json::parse(pool.serializeSignalRecords())) {
      result.insert(record.dump());
    }
    return result;
  }

  RowGroupMode mode;
};

TEST_F(StreamingPool, SignalExistsWhenAskedForAndOwnsDataWhenAppended) {
  SignalPool pool(store.path());
  const auto signal = pool.getStreamableSignal(7);
  EXPECT_EQ(pool.getStreamableSignal(7), signal);
  EXPECT_TRUE(pool.checkSignalExists(7));
  EXPECT_FALSE(pool.isEmpty());
  EXPECT_FALSE(pool.isDataOwner(7));
  EXPECT_FALSE(pool.isDataOwner(8));
  append(*signal, 1);
  EXPECT_TRUE(pool.isDataOwner(7));
  signal->finish();
  pool.deleteSignal(7);
  EXPECT_TRUE(pool.isEmpty());
  EXPECT_EQ(timesOf(*signal), bytesOf<double>({1}));  // the caller still has it
}

TEST_F(StreamingPool, FilesGoWhenTheLastHolderLetsGo) {
  {
    SignalPool pool(store.path());
    append(*pool.getStreamableSignal(1), 1);
    auto kept = pool.getStreamableSignal(2);
    append(*kept, 2);
    EXPECT_EQ(store.names(), (Names{"0", "1", "2", "3"}));
    pool.deleteSignal(1);
    pool.deleteSignal(2);
    EXPECT_EQ(store.names(), (Names{"2", "3"}));
    kept.reset();
    EXPECT_EQ(store.names(), Names{});
    append(*pool.getStreamableSignal(3), 3);  // open when the pool goes
  }
  EXPECT_EQ(store.names(), Names{});
  std::shared_ptr<StreamableSignal> survivor;
  {
    SignalPool pool(store.path());
    survivor = pool.getStreamableSignal(1);
    append(*survivor, 1);
    pool.reset();
    EXPECT_NE(pool.getParquetDirectory(), store.path());
    append(*pool.getStreamableSignal(1), 2);
  }
  append(*survivor, 3);
  survivor->finish();
  EXPECT_EQ(timesOf(*survivor), bytesOf<double>({1, 3}));
  survivor.reset();
  EXPECT_EQ(store.names(), Names{});
}

TEST_F(StreamingPool, SignalsOfTheOtherModeAreAnEmptyPointerOrAnError) {
  SignalPool pool(store.path());
  pool.getStreamableSignal(1);
  EXPECT_EQ(pool.getSignal(1), nullptr);
  EXPECT_THAT([&] { pool.getSignal(2); },
              ThrowsMessage<std::runtime_error>(HasSubstr("the pool is in row-group mode")));
  EXPECT_FALSE(pool.checkSignalExists(2));

  FeatureFlag::set("fKYRUseParquetRowGroup", false);
  EXPECT_THROW(pool.isDataOwner(1), std::bad_variant_access);
  EXPECT_THROW(pool.serializeSignalRecords(), std::bad_variant_access);
  EXPECT_NE(pool.getStreamableSignal(3), nullptr);  // the pool's own mode is that of its directory
  pool.setParquetDirectory(temp.path().join("store"));
  EXPECT_NE(pool.getStreamableSignal(1), nullptr);
  EXPECT_EQ(pool.getSignal(1), nullptr);
  EXPECT_NE(pool.getSignal(4), nullptr);
  EXPECT_THAT([&] { pool.getStreamableSignal(5); },
              ThrowsMessage<std::runtime_error>(HasSubstr("the pool is in whole-file mode")));
  FeatureFlag::set("fKYRUseParquetRowGroup", true);
  EXPECT_THROW(pool.isDataOwner(4), std::bad_variant_access);
  EXPECT_FALSE(pool.isDataOwner(1));
}

TEST_F(StreamingPool, BatchesAreSoLongThatNothingIsWrittenBeforeFinish) {
  SignalPool pool(store.path());
  const auto signal = pool.getStreamableSignal(1);
  const std::vector<double> rows(100000, 1.5);
  signal->appendTime(rows.data(), rows.size());
  EXPECT_LT(test::fs::file_size(store.file(0)), 100U);
  signal->finish();
  EXPECT_GT(test::fs::file_size(store.file(0)), 100U);
}

TEST_F(StreamingPool, RecordsFinishTheSignalsAndRebuildThemElsewhere) {
  const Folder copy(temp.file("copy"));
  std::set<std::string> saved;
  {
    SignalPool pool(store.path());
    const auto unwritten = pool.getStreamableSignal(9);
    EXPECT_EQ(pool.serializeSignalRecords(), "[]");
    append(*pool.getStreamableSignal(3), 1);
    EXPECT_EQ(pool.serializeSignalRecords(),
              R"([{"dataStorageId":[1],"signalId":3,"timeStorageId":[0]}])");
    append(*pool.getStreamableSignal(4), 1);  // shares both files
    const double time = 2;
    pool.getStreamableSignal(-5)->appendTime(&time, 1);
    saved = records(pool);
    EXPECT_EQ(saved, (std::set<std::string>{
                         R"({"dataStorageId":[-554114],"signalId":-5,"timeStorageId":[2]})",
                         R"({"dataStorageId":[1],"signalId":3,"timeStorageId":[0]})",
                         R"({"dataStorageId":[1],"signalId":4,"timeStorageId":[0]})"}));
    EXPECT_EQ(timesOf(*pool.getStreamableSignal(-5)), bytesOf<double>({2}));
    append(*unwritten, 8);  // was not finished for good by that
    unwritten->finish();
    EXPECT_EQ(timesOf(*unwritten), bytesOf<double>({8}));
    test::fs::copy(store.file(""), copy.file(""), test::fs::copy_options::recursive);
  }
  {
    SignalPool other(copy.path());
    std::string text = "[";
    for (const auto& record : saved) text += (text == "[" ? "" : ",") + record;
    other.deserializeSignalRecords(text + "]");
    EXPECT_EQ(records(other), saved);
    const auto signal = other.getStreamableSignal(4);
    EXPECT_EQ(timesOf(*signal), bytesOf<double>({1}));
    std::vector<char> bytes;
    std::vector<std::vector<unsigned long>> dimensions;
    signal->getData(0, 9, bytes, dimensions);
    EXPECT_EQ(bytes, bytesOf<double>({1.5}));
    EXPECT_EQ(other.getStreamableSignal(-5)->getStorageId(Part::data), kNone);
    append(*other.getStreamableSignal(1), 5);
    EXPECT_EQ(other.getStreamableSignal(1)->getStorageId(Part::time), 5);
    other.deserializeSignalRecords(R"([{"signalId":1,"timeStorageId":[77],"dataStorageId":[77]}])");
    EXPECT_TRUE(other.isDataOwner(1));  // whether or not there are such files
    EXPECT_THROW(timesOf(*other.getStreamableSignal(1)), std::out_of_range);
  }
  EXPECT_EQ(copy.names(), Names{});
}

}  // namespace
}  // namespace kyr::parquet
