#include <benchmark/benchmark.h>
#include <parquet/column_reader.h>
#include <parquet/file_reader.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <vector>

#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Envelopes of a long signal, compared with a reader of Parquet that does nothing but decode.
namespace kyr::bench {

namespace {

constexpr std::size_t kColumns = 1000;

void record(const Path& folder, std::size_t rows) {
  constexpr std::size_t kPiece = 1'000'000;
  recording::LiveRecording live(folder);
  const auto signal = live.addSignal({1, "speed", "m/s", "", {}}, Double, Scalar);
  const std::vector<double> times = clockTimes(rows);
  const std::vector<double> values = noise(kPiece);
  for (std::size_t at = 0; at < rows; at += kPiece) {
    const std::size_t count = std::min(kPiece, rows - at);
    signal->appendTime(times.data() + at, count);
    signal->appendData(values.data(), count * sizeof(double), {}, {});
  }
  (void)live.finish();
}

// Decodes all columns of all files, one after the other.
std::size_t decodeAll(const fs::path& storage) {
  constexpr std::int64_t kBatch = 65'536;
  std::vector<double> values(kBatch);
  std::size_t rows = 0;
  for (const auto& entry : fs::directory_iterator(storage)) {
    const auto file = ::parquet::ParquetFileReader::OpenFile(entry.path());
    for (int group = 0; group < file->metadata()->num_row_groups(); ++group) {
      const auto column =
          std::static_pointer_cast<::parquet::DoubleReader>(file->RowGroup(group)->Column(0));
      std::vector<std::int16_t> levels(kBatch);
      while (column->HasNext()) {
        std::int64_t read = 0;
        rows += static_cast<std::size_t>(
            column->ReadBatch(kBatch, levels.data(), nullptr, values.data(), &read));
      }
    }
  }
  return rows;
}

// The first envelope of a whole signal, and later ones of windows of any length.
void lookAtSignal(benchmark::State& state) {
  const Folder folder;
  const std::size_t rows = sizes().windowRows;
  record(folder.path("run"), rows);
  Rounds wall;
  Rounds processor;
  double slowest = 0;
  std::minstd_rand random(1);
  for (auto _ : state) {
    std::optional<recording::RecordingReader> reader;
    const auto firstLook = [&] {
      reader.emplace(folder.path("run"));
      const auto span = reader->timeSpan(1).value();
      const auto envelope = reader->envelope(1, span.from, span.to, kColumns);
      std::uint64_t found = 0;
      for (const auto& column : envelope.columns) found += column.rows;
      if (found != rows) throw std::runtime_error("the envelope lacks rows");
    };
    const auto decode = [&] {
      if (decodeAll(folder.file("run") / "storage") != 2 * rows) {
        throw std::runtime_error("Parquet reads other rows");
      }
    };
    const auto timeBoth = [&](const char* name, const auto& work) {
      double elapsed = 0;
      processor.add(name, seconds([&] { elapsed = wallSeconds(work); }));
      return elapsed;
    };
    wall.takeTurns({{"first look", [&] { return timeBoth("first look", firstLook); }},
                    {"decoding", [&] { return timeBoth("decoding", decode); }}});
    const auto span = reader->timeSpan(1).value();
    std::vector<double> later;  // in processor time: one thread does the work
    for (unsigned i = 0; i < 40; ++i) {
      const double width = (span.to - span.from) / static_cast<double>(1U << (i % 20U));
      const double from =
          span.from + (span.to - span.from - width) * static_cast<double>(random() % 1000) / 1000;
      later.push_back(seconds(
          [&] { benchmark::DoNotOptimize(reader->envelope(1, from, from + width, kColumns)); }));
    }
    slowest = std::max(slowest, *std::max_element(later.begin(), later.end()));
    state.counters["later_median_ms"] = median(later) * 1000;
  }
  state.counters["elapsed_vs_decoding"] = wall.ratio("first look", "decoding");
  state.counters["processor_vs_decoding"] = processor.ratio("first look", "decoding");
  state.counters["decoding_s"] = wall.median("decoding");
  state.counters["later_slowest_ms"] = slowest * 1000;
}

BENCHMARK(lookAtSignal)->Name("look_at_signal")->Unit(benchmark::kSecond)->Iterations(3);

}  // namespace

}  // namespace kyr::bench
