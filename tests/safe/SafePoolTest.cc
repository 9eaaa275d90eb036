#include <gmock/gmock.h>

#include <stdexcept>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

namespace kyr::parquet {
namespace {

TEST(SafePool, ASignalThatWasResetTakesAnotherType) {
  const test::TempDir dir;
  SignalPool pool(dir.path(), SafeStorage());
  const auto signal = pool.getStreamableSignal(1);
  std::vector<char> bytes;
  std::vector<std::vector<std::size_t>> dims;
  for (const KYRSignalDataType type : {Int8, Double, UInt16, Double}) {
    const std::size_t width = elementWidth(type);
    const std::vector<char> rows(6 * width, static_cast<char>(type));
    signal->setDataType(type);
    signal->setCategory(VarDim);
    signal->appendData(rows.data(), rows.size(), {{2}, {1, 4}}, {});
    signal->getData(0, 9, bytes, dims);
    EXPECT_EQ(bytes, rows);
    signal->setDataType(Int32);
    EXPECT_THROW(signal->appendData(rows.data(), 8, {{1}, {1}}, {}), std::invalid_argument);
    signal->resetData();
    EXPECT_FALSE(signal->hasData());
  }
}

TEST(SafePool, AKeptFileOutlastsTheNextFlushAndThePool) {
  const test::TempDir dir;
  SafeStorage storage;
  storage.keepsFiles = true;
  const double values[] = {1, 2, 3};
  {
    SignalPool pool(dir.path(), storage);
    const auto signal = pool.getStreamableSignal(1);
    signal->appendTime(values, 2);
    signal->finish();
    pool.flush();
    signal->appendTime(&values[2], 1);  // beyond the end of the finished file
    pool.flush();
    EXPECT_THAT(dir.names(), ::testing::ElementsAre("0", "1"));
    pool.flush();
    EXPECT_THAT(dir.names(), ::testing::ElementsAre("1"));
    signal->appendTime(values, 3);
  }
  EXPECT_EQ(test::metadataOf(dir.file("1"))->num_rows(), 6);
}

TEST(SafePool, TimesThatWereReadAreNotKeptWhenTheFileGrows) {
  const test::TempDir dir;
  SafeStorage storage;
  storage.keepsFiles = true;
  SignalPool writer(dir.path(), storage);
  const auto growing = writer.getStreamableSignal(1);
  growing->setDataType(Double);
  growing->setCategory(Scalar);
  SignalPool reader(dir.path(), storage);
  for (std::size_t rows : {4U, 8U}) {
    const std::vector<double> more(4, static_cast<double>(rows));
    const std::vector<double> moreTimes(4, static_cast<double>(rows) / 8);
    growing->appendTime(moreTimes.data(), moreTimes.size());
    growing->appendData(more.data(), more.size() * sizeof(double), {}, {});
    growing->flush();
    if (rows == 4) {
      reader.deserializeSignalRecords(
          R"([{"dataStorageId":[1],"signalId":1,"timeStorageId":[0]}])");
    }
    std::vector<double> times;
    std::vector<char> data;
    std::vector<std::vector<std::size_t>> dimensions;
    const auto signal = reader.getSignal(1);
    signal->setDataType(Double);
    signal->setCategory(Scalar);
    signal->getData(times, data, dimensions);
    EXPECT_EQ(times.size(), rows);
    EXPECT_EQ(data.size(), rows * sizeof(double));
  }
}

TEST(SafePool, AFeatureFlagAsksForItToo) {
  const test::TempDir dir;
  {
    SignalPool pool(dir.path());
    EXPECT_THROW(pool.flush(), std::logic_error);
  }
  FeatureFlag::set("fKYRUseSafeStorage", true);
  SignalPool pool(dir.path());
  FeatureFlag::set("fKYRUseSafeStorage", false);
  const double value = 1;
  const auto signal = pool.getStreamableSignal(1);
  signal->appendTime(&value, 1);
  pool.flush();
  EXPECT_THAT(dir.names(), ::testing::ElementsAre("0"));
  EXPECT_EQ(pool.getSignal(1), nullptr);
  EXPECT_NE(pool.getSignal(2), nullptr);
}

}  // namespace
}  // namespace kyr::parquet
