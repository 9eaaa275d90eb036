#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {

using Values = std::vector<double>;

/// Signals of one number and one time per row, in a recording that grows.
class LivePacksTest : public test::RecordingTest {
 protected:
  LivePacksTest() { options.storage.batchRows = 1000; }

  Path path() const { return Path::fromFilesystem(rec); }

  void begin(int count) {
    live = std::make_unique<LiveRecording>(path(), options);
    for (int id = 1; id <= count; ++id) add(id);
  }
  void add(int id) {
    streams.push_back(live->addSignal({id, fmt::format("s{}", id), "V", "", {}}, Double, Scalar));
  }
  static double valueOf(int id, int row) { return id * 1e6 + row; }
  void append(std::size_t signal, int from, int to) {
    std::vector<double> times;
    std::vector<double> values;
    for (int i = from; i < to; ++i) {
      times.push_back(i);
      values.push_back(valueOf(int(signal) + 1, i));
    }
    streams[signal]->appendTime(times.data(), times.size());
    streams[signal]->appendData(values.data(), values.size() * sizeof(double), {}, {});
  }
  void appendAll(int from, int to) {
    for (std::size_t i = 0; i < streams.size(); ++i) append(i, from, to);
  }
  // Leaves the folder as a crash now would.
  void crash() {
    crashBefore([this] {
      streams.clear();
      live.reset();
    });
  }
  test::Names stored() const { return test::Folder(rec / "storage").names(); }

  static void expectRows(RecordingReader& reader, int id, std::uint64_t rows) {
    ASSERT_EQ(reader.sampleCount(id), rows) << id;
    Values values(rows);
    ASSERT_EQ(reader.readElements(id, {0, rows}, values.data(), rows * sizeof(double)), rows);
    for (std::uint64_t i = 0; i < rows; ++i) {
      ASSERT_EQ(values[i], valueOf(id, int(i))) << id << " at " << i;
    }
    ASSERT_EQ(reader.timeCount(id), rows);
    const auto times = reader.times(id, {0, rows});
    for (std::uint64_t i = 0; i < rows; ++i) ASSERT_EQ(times[i], double(i));
  }

  LiveOptions options;
  std::unique_ptr<LiveRecording> live;
  std::vector<std::shared_ptr<parquet::StreamableSignal>> streams;
};

}  // namespace kyr::recording
