#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "files/pack/GrowingPack.h"
#include "kyr/recording/Recovery.h"
#include "recording/LivePacksTest.h"
#include "recording/SampleSignals.h"

// Rows that leave memory before they make up a batch.

namespace kyr::recording {
namespace {

using test::bytesOf;

struct SmallMemory {
  const char* name;
  int signals;
  int rows;
  std::size_t batchRows;
  std::size_t bytes;
  std::size_t mostPacks;  // that grow
};

std::size_t growingPacksIn(const test::Names& names) {
  return static_cast<std::size_t>(std::count_if(names.begin(), names.end(), [](const auto& name) {
    return parquet::growingPackNumber(name).has_value();
  }));
}

class LittleMemory : public LivePacksTest, public ::testing::WithParamInterface<SmallMemory> {};

// The pool's memory is bounded whatever the number of signals. What leaves it goes to few files,
// and is read from there, compared with what other signals get, recovered and finished.
TEST_P(LittleMemory, RowsLeaveItForFewFiles) {
  options.storage.memoryTotal = GetParam().bytes;
  options.storage.batchRows = GetParam().batchRows;
  begin(GetParam().signals);
  const int rows = GetParam().rows;
  const auto expectAll = [&](RecordingReader& reader, int end) {
    for (const int id : {1, 2, 7, 10}) expectRows(reader, id, std::uint64_t(end));
  };
  RecordingReader along(path());
  constexpr int kRows = 20;
  for (int row = 0; row < rows; row += kRows) {
    appendAll(row, row + kRows);
    if (row / kRows % 7 == 6) live->flush();
    EXPECT_LE(growingPacksIn(stored()), GetParam().mostPacks);
    if (row / kRows % 49 != 48) continue;
    ASSERT_TRUE(along.refresh());
    expectAll(along, row + kRows);
  }
  std::vector<char> bytes;
  std::vector<std::vector<unsigned long>> shapes;
  streams[6]->getData(0, static_cast<unsigned long>(rows), bytes, shapes);
  Values expected;
  for (int row = 0; row < rows; ++row) expected.push_back(valueOf(7, row));
  EXPECT_EQ(bytes, bytesOf(expected));
  add(GetParam().signals + 1);
  streams.back()->appendData(expected.data(), expected.size() * sizeof(double), {}, {});
  live->flush();
  using Part = parquet::StreamableSignal::SignalPart;
  EXPECT_EQ(streams.back()->getStorageId(Part::data), streams[6]->getStorageId(Part::data));

  const fs::path crashed = temp.file("crashed");
  fs::copy(rec, crashed, fs::copy_options::recursive);
  live->finish();
  EXPECT_EQ(faults(rec), "");
  RecordingReader finished(path());
  expectAll(finished, rows);
  EXPECT_FALSE(recoverRecording(Path::fromFilesystem(crashed)).hasLosses());
  RecordingReader recovered(Path::fromFilesystem(crashed));
  expectAll(recovered, rows);
}

// Memory grows by doubling, so that rows may fill just over half of it.
TEST_F(LivePacksTest, MemoryThatRowsDoNotFillIsBoundedToo) {
  options.storage.batchRows = 1 << 20U;
  options.storage.memoryTotal = 700'000;
  begin(64);
  for (int row = 0; row < 1100; row += 100) appendAll(row, row + 100);
  ASSERT_LT(65 * 1100 * sizeof(double), options.storage.memoryTotal);
  EXPECT_FALSE(stored().empty());
  RecordingReader reader(path());
  live->flush();
  ASSERT_TRUE(reader.refresh());
  expectRows(reader, 64, 1100);
}

TEST_F(LivePacksTest, PacksThatNobodyNeedsAreRemovedWithoutAFlush) {
  options.storage.memoryTotal = 20'000;
  begin(40);
  for (int row = 0; row < 3000; row += 20) appendAll(row, row + 20);
  EXPECT_LE(growingPacksIn(stored()), 36U);
  live->finish();
  EXPECT_EQ(faults(rec), "");
  RecordingReader reader(path());
  expectRows(reader, 40, 3000);
}

// Where batches are long, the rows that wait in packs are more than a batch of a pack may have.
TEST_F(LivePacksTest, RunsOfMoreThanAMillionRowsAreMerged) {
  constexpr std::size_t kSignals = 8;
  constexpr std::size_t kRows = 33'000;  // 32 times as many are more than 1,048,576
  options.storage.batchRows = 1 << 20U;
  options.storage.memoryTotal = kSignals * kRows;
  begin(0);
  std::mt19937 random;
  std::vector<std::vector<char>> values(kSignals + 1);
  for (int id = 0; id <= int(kSignals); ++id) {
    streams.push_back(live->addSignal({id, "s", "", "", {}}, Int8, Scalar));
  }
  const auto appendTo = [&](std::size_t signal, std::size_t rows) {
    std::vector<char>& all = values[signal];
    for (std::size_t i = 0; i < rows; ++i) all.push_back(static_cast<char>(random()));
    streams[signal]->appendData(&all[all.size() - rows], rows, {}, {});
  };
  for (int pack = 0; pack < 32; ++pack) {
    for (std::size_t signal = 0; signal < kSignals; ++signal) appendTo(signal, kRows);
  }
  // Each time one signal's rows go from the packs to its file, until few are left there.
  for (std::size_t i = 0; i < kSignals; ++i) appendTo(kSignals, kSignals * kRows);
  live->finish();
  RecordingReader reader(path());
  for (std::size_t signal = 0; signal <= kSignals; ++signal) {
    EXPECT_TRUE(reader.read(int(signal)).bytes == values[signal]) << signal;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Recordings, LittleMemory,
    ::testing::Values(SmallMemory{"OfFewSignals", 10, 4000, 1 << 20U, 100'000, 7},
                      SmallMemory{"WhoseRunsMakeBatches", 40, 3000, 1000, 20'000, 36},
                      SmallMemory{"WhosePacksAreMerged", 40, 8000, 1 << 20U, 20'000, 45},
                      SmallMemory{"OfManySignals", 400, 400, 1 << 20U, 60'000, 40}),
    [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace kyr::recording
