#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "support/TempDir.h"

// Readers run in threads of their own beside a recorder. The test is small because it runs under
// the thread sanitizer.
namespace kyr::recording {
namespace {

constexpr int kSignals = 4;
constexpr int kFlushes = 60;
constexpr int kRowsPerFlush = 50;
constexpr int kReaders = 3;

double sampleOf(int id, std::uint64_t row) { return static_cast<double>(row) * (id + 1); }

// Two signals and two share their samples, all share their times.
void record(const std::filesystem::path& folder, std::atomic<bool>& isThere) {
  LiveOptions options;
  options.storage.batchRows = 64;
  LiveRecording live(Path::fromFilesystem(folder), options);
  std::vector<std::shared_ptr<parquet::StreamableSignal>> signals;
  signals.reserve(kSignals);
  for (int id = 0; id < kSignals; ++id) {
    signals.push_back(live.addSignal({id, "", "", "", {}}, Double, Scalar));
  }
  live.flush();
  isThere = true;
  std::uint64_t row = 0;
  for (int flush = 0; flush < kFlushes; ++flush) {
    for (int i = 0; i < kRowsPerFlush; ++i, ++row) {
      for (int id = 0; id < kSignals; ++id) {
        const double time = static_cast<double>(row) / 10;
        const double sample = sampleOf(id / 2, row);
        signals[static_cast<std::size_t>(id)]->appendTime(&time, 1);
        signals[static_cast<std::size_t>(id)]->appendData(&sample, sizeof(sample), {}, {});
      }
    }
    live.flush();
  }
  signals.clear();
  live.finish();
}

void require(bool isTrue, const char* what) {
  if (!isTrue) throw std::runtime_error(what);
}

void checkSignal(const RecordingReader& reader, int id) {
  const std::uint64_t rows = reader.sampleCount(id);
  require(reader.timeCount(id) == rows, "a flush has as many times as samples");
  const std::uint64_t first = rows > 100 ? rows - 100 : 0;
  const SampleRows read = reader.read(id, {first, rows});
  require(read.times.size() == rows - first, "all rows are there");
  for (std::uint64_t row = first; row < rows; ++row) {
    const auto at = static_cast<std::size_t>(row - first);
    double sample = 0;
    std::memcpy(&sample, read.bytes.data() + at * sizeof(sample), sizeof(sample));
    require(read.times[at] == static_cast<double>(row) / 10, "times are as recorded");
    require(sample == sampleOf(id / 2, row), "samples are as recorded");
  }
  const auto window = reader.rowsBetween(id, 1, 2);
  require(rows < 21 || window == std::vector<RowRange>({{10, 21}}), "windows are as recorded");
}

// Reads until the recording is finished; returns what went wrong.
std::string readAlong(const std::filesystem::path& folder, std::atomic<int>& states) {
  try {
    RecordingReader reader(Path::fromFilesystem(folder));
    std::uint64_t rows = 0;
    while (reader.state() != RecordingState::finished) {
      reader.refresh();
      require(reader.sampleCount(0) >= rows, "rows stay");
      rows = reader.sampleCount(0);
      try {
        for (int id = 0; id < kSignals; ++id) checkSignal(reader, id);
        ++states;
      } catch (const DamagedError& error) {
        // The recorder may replace a file between a refresh and the read.
        require(std::string(error.what()).find("refresh()") != std::string::npos, error.what());
      }
    }
    for (int id = 0; id < kSignals; ++id) {
      require(reader.sampleCount(id) == kFlushes * kRowsPerFlush, "the end is there");
      checkSignal(reader, id);
    }
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

TEST(ReaderThreads, SeeWholeFlushesBesideARecorder) {
  const test::TempDir folder;
  const std::filesystem::path recording = folder.file("rec");
  std::atomic<bool> isThere{false};
  std::atomic<int> states{0};
  std::thread recorder([&] { record(recording, isThere); });
  while (!isThere) std::this_thread::yield();
  std::vector<std::string> errors(kReaders);
  std::vector<std::thread> readers;
  readers.reserve(kReaders);
  for (std::string& error : errors) {
    readers.emplace_back([&] { error = readAlong(recording, states); });
  }
  for (std::thread& reader : readers) reader.join();
  recorder.join();
  for (const std::string& error : errors) EXPECT_EQ(error, "");
  EXPECT_GT(states, 0);
}

}  // namespace
}  // namespace kyr::recording
