#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingReader.h"
#include "support/TempDir.h"

// Files of one recording are synced, finished, saved and verified in several threads. The test runs
// under the thread sanitizer.
namespace kyr::recording {
namespace {

constexpr int kSignals = 40;
constexpr std::uint64_t kRows = 400;

double sampleOf(int id, std::uint64_t row) { return static_cast<double>(row * kSignals) + id; }

void expectAll(const Path& folder) {
  EXPECT_TRUE(verifyRecording(folder).empty());
  const RecordingReader reader(folder);
  for (int id = 0; id < kSignals; ++id) {
    std::vector<double> samples(kRows);
    reader.readElements(id, {0, kRows}, samples.data(), kRows * sizeof(double));
    for (std::uint64_t row = 0; row < kRows; ++row) {
      ASSERT_EQ(samples[static_cast<std::size_t>(row)], sampleOf(id, row));
    }
  }
}

TEST(SaveThreads, ManyFilesAreSyncedFinishedAndSaved) {
  test::TempDir dir;
  const Path recorded = Path::fromFilesystem(dir.file("recorded"));
  LiveOptions options;
  options.storage.batchRows = 64;
  options.storage.sync = parquet::SafeStorage::Sync::flush;
  LiveRecording live(recorded, options);
  std::vector<std::shared_ptr<parquet::StreamableSignal>> signals;
  std::vector<SignalDescription> descriptions;
  for (int id = 0; id < kSignals; ++id) {
    descriptions.push_back({id, "s" + std::to_string(id), "", "", {}});
    signals.push_back(live.addSignal(descriptions.back(), Double, Scalar));
  }
  for (std::uint64_t row = 0; row < kRows; ++row) {
    for (int id = 0; id < kSignals; ++id) {
      const double time = static_cast<double>(row);
      const double sample = sampleOf(id, row);
      signals[static_cast<std::size_t>(id)]->appendTime(&time, 1);
      signals[static_cast<std::size_t>(id)]->appendData(&sample, sizeof(sample), {}, {});
    }
    if (row % 100 == 99) live.flush();
  }
  const Path saved = Path::fromFilesystem(dir.file("saved"));
  SaveOptions whole;
  whole.packBelow = 0;
  saveRecording(live.pool(), descriptions, saved, whole);
  expectAll(saved);
  live.finish();
  expectAll(recorded);
}

}  // namespace
}  // namespace kyr::recording
