#include <arrow/status.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unordered_map>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/ArrowFiles.h"
#include "support/BareFiles.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Whole pools, compared with a bare program that hashes and writes the same files, and with
/// read(2).
namespace kyr::bench {

namespace {

constexpr std::size_t kChunkRows = 1'000;
constexpr std::size_t kBatchRows = 65'536;

const std::vector<std::vector<unsigned long>> kNoDimensions;
const std::vector<int> kNoSizes;

// Signals of one length over one time vector. Only the first \p distinctCount of them differ; the
// others repeat them.
struct Signals {
  Signals(std::size_t signalCount, std::size_t rows, std::size_t distinctCount)
      : count(signalCount), distinct(distinctCount), time(clockTimes(rows)) {
    for (std::size_t i = 0; i < distinct; ++i) data.push_back(bytesOf(noise(rows, i + 1)));
  }

  const std::vector<char>& of(std::size_t signal) const { return data[signal % distinct]; }
  std::size_t rows() const { return time.size(); }
  std::size_t bytes() const { return (count + 1) * time.size() * sizeof(double); }

  std::size_t count;
  std::size_t distinct;
  std::vector<double> time;
  std::vector<std::vector<char>> data;
};

using WholePool = std::vector<std::shared_ptr<parquet::ParquetSignal>>;

double timeSetData(parquet::SignalPool& pool, const Signals& signals, WholePool& whole) {
  const double time = seconds([&] {
    for (std::size_t i = 0; i < signals.count; ++i) {
      const auto signal = pool.getSignal(static_cast<int>(i));
      signal->setDataType(Double);
      signal->setCategory(Scalar);
      signal->setData(signals.time, signals.of(i), {}, {});
      whole.push_back(signal);
    }
  });
  for (const auto& signal : whole) {
    if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
  }
  return time;
}

// Hashes every vector of the signals, and writes the new ones with \p write.
template <typename Write>
double timeBareWrites(const Folder& folder, const Signals& signals, Write&& write) {
  fs::create_directory(folder.file("bare"));
  const double time = seconds([&] {
    std::unordered_map<std::uint64_t, int> known;
    const auto store = [&](const double* values) {
      const auto id = static_cast<int>(known.size());
      const std::uint64_t hash = bareHash(values, signals.rows() * sizeof(double));
      if (known.emplace(hash, id).second) {
        write(values, signals.rows(), folder.file("bare") / std::to_string(id));
      }
    };
    for (std::size_t i = 0; i < signals.count; ++i) {
      store(signals.time.data());
      store(reinterpret_cast<const double*>(signals.of(i).data()));
    }
  });
  fs::remove_all(folder.file("bare"));
  return time;
}

void writeByArrow(const double* values, std::size_t count, const fs::path& file) {
  writeFile(*tableOver(values, count), file);
}

double timeGetData(const WholePool& whole, const Signals& signals) {
  std::vector<double> time;
  std::vector<std::vector<std::size_t>> dims;
  std::vector<std::vector<char>> data(whole.size());
  const double result = secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < whole.size(); ++i) whole[i]->getData(time, data[i], dims);
  });
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (data[i] != signals.of(i)) throw std::runtime_error("other values came back");
  }
  return result;
}

fs::path fileOf(const Folder& folder, const parquet::ParquetSignal& signal, char part) {
  return folder.file("pool") / std::to_string(signal.getStorageId(part));
}

// Reads the bytes of the pool's files with read(2).
double timeReads(const Folder& folder, const Signals& signals) {
  const std::size_t bytes = signals.rows() * sizeof(double);
  std::vector<char> time(bytes);
  std::vector<std::vector<char>> data(signals.count);
  return secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < signals.count; ++i) {
      readBytes(folder.file("pool") / "0", 4, time);
      data[i].resize(bytes);
      readBytes(folder.file("pool") / std::to_string(1 + i % signals.distinct), 4, data[i]);
    }
  });
}

double timeLowLevelReads(const Folder& folder, const WholePool& whole) {
  std::vector<double> time;
  std::vector<std::vector<double>> data(whole.size());
  return secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < whole.size(); ++i) {
      readLowLevel(fileOf(folder, *whole[i], 0), time);
      readLowLevel(fileOf(folder, *whole[i], 1), data[i]);
    }
  });
}

// Times setData() and getData() of all signals of a pool.
void wholePool(benchmark::State& state) {
  const Signals signals(static_cast<std::size_t>(state.range(0)),
                        static_cast<std::size_t>(state.range(1)),
                        static_cast<std::size_t>(state.range(2)));
  const DictionaryOption dictionary(false);
  Rounds rounds;
  for (auto _ : state) {
    const Folder folder;
    parquet::SignalPool pool(folder.path("pool"));
    WholePool whole;
    rounds.takeTurns(
        {{"write", [&] { return timeSetData(pool, signals, whole); }},
         {"arrow", [&] { return timeBareWrites(folder, signals, writeByArrow); }},
         {"lowLevel", [&] { return timeBareWrites(folder, signals, writeLowLevel); }}});
    rounds.takeTurns({{"read", [&] { return timeGetData(whole, signals); }},
                      {"read(2)", [&] { return timeReads(folder, signals); }},
                      {"lowLevelRead", [&] { return timeLowLevelReads(folder, whole); }}});
    state.SetIterationTime(rounds.last("write"));
  }
  reportThroughput(state, signals.count * signals.rows(), signals.bytes());
  state.counters["write_vs_arrow"] = rounds.ratio("write", "arrow");
  state.counters["write_vs_low_level"] = rounds.ratio("write", "lowLevel");
  state.counters["read_vs_read2"] = rounds.ratio("read", "read(2)");
  state.counters["read_vs_low_level"] = rounds.ratio("read", "lowLevelRead");
}

BENCHMARK(wholePool)
    ->Name("whole_pool")
    ->ArgNames({"signals", "rows", "distinct"})
    ->Args({200, 100'000, 200})
    ->Args({200, 100'000, 20})
    ->Args({5'000, 200, 5'000})
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);

// A pool whose signals are appended in chunks, one signal after the other.
class StreamedPool {
 public:
  StreamedPool(const Signals& signals, std::size_t batchRows, bool isSafe)
      : signals_(signals), pool_(makePool(isSafe)) {
    for (std::size_t i = 0; i < signals.count; ++i) {
      streamed_.push_back(pool_->getStreamableSignal(static_cast<int>(i)));
      streamed_.back()->setBufferSize(batchRows);
    }
  }

  double timeAppends(std::size_t chunkRows) {
    const std::size_t width = sizeof(double);
    const double time = seconds([&] {
      for (std::size_t i = 0; i < signals_.count; ++i) {
        for (std::size_t at = 0; at < signals_.rows(); at += chunkRows) {
          streamed_[i]->appendTime(&signals_.time[at], chunkRows);
          streamed_[i]->appendData(&signals_.of(i)[at * width], chunkRows * width, kNoDimensions,
                                   kNoSizes);
        }
        streamed_[i]->finish();
      }
    });
    for (const auto& signal : streamed_) {
      if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
    }
    return time;
  }

  double timeGetData() {
    std::vector<std::vector<char>> data(signals_.count);
    std::vector<std::vector<unsigned long>> dimensions;
    const double time = secondsFromTrimmedHeap([&] {
      for (std::size_t i = 0; i < signals_.count; ++i) {
        streamed_[i]->getData(0, signals_.rows(), data[i], dimensions);
      }
    });
    for (std::size_t i = 0; i < signals_.count; ++i) {
      if (data[i] != signals_.of(i)) throw std::runtime_error("other values came back");
    }
    return time;
  }

  // Reads one window of each signal.
  double timeWindows(std::size_t from, std::size_t count, std::vector<char>& bytes) {
    std::vector<std::vector<unsigned long>> dimensions;
    const double time = seconds([&] {
      for (const auto& signal : streamed_) {
        signal->getData(from, from + count, bytes, dimensions);
      }
    });
    if (bytes.size() != count * sizeof(double) ||
        std::memcmp(bytes.data(), &signals_.of(signals_.count - 1)[from * sizeof(double)],
                    bytes.size()) != 0) {
      throw std::runtime_error("the window holds other rows");
    }
    return time / static_cast<double>(signals_.count);
  }

  fs::path file(std::size_t signal) const {
    const auto part = parquet::StreamableSignal::SignalPart::data;
    return folder_.file("pool") / std::to_string(streamed_[signal]->getStorageId(part));
  }

 private:
  std::unique_ptr<parquet::SignalPool> makePool(bool isSafe) const {
    if (isSafe) {
      return std::make_unique<parquet::SignalPool>(folder_.path("pool"), parquet::SafeStorage());
    }
    return std::make_unique<parquet::SignalPool>(folder_.path("pool"));
  }

  const Signals& signals_;
  Folder folder_;
  RowGroupMode mode_;
  std::unique_ptr<parquet::SignalPool> pool_;
  std::vector<std::shared_ptr<parquet::StreamableSignal>> streamed_;
};

// Gathers the rows of a column and lets Arrow write them batch by batch.
class BareColumn {
 public:
  explicit BareColumn(const fs::path& file) {
    PARQUET_ASSIGN_OR_THROW(stream_, ::arrow::io::FileOutputStream::Open(file.string()));
    PARQUET_ASSIGN_OR_THROW(
        writer_, ::parquet::arrow::FileWriter::Open(*scalarSchema(), ::arrow::default_memory_pool(),
                                                    stream_, writerProperties()));
  }

  void append(const double* values, std::size_t count) {
    for (std::size_t at = 0; at < count;) {
      const std::size_t taken = std::min(count - at, kBatchRows - rows_.size());
      rows_.insert(rows_.end(), values + at, values + at + taken);
      at += taken;
      if (rows_.size() == kBatchRows) write();
    }
  }

  void finish() {
    if (!rows_.empty()) write();
    PARQUET_THROW_NOT_OK(writer_->Close());
    PARQUET_THROW_NOT_OK(stream_->Close());
  }

 private:
  void write() {
    PARQUET_THROW_NOT_OK(writer_->WriteTable(*tableOver(rows_.data(), rows_.size()),
                                             static_cast<std::int64_t>(rows_.size())));
    rows_.clear();
  }

  std::shared_ptr<::arrow::io::FileOutputStream> stream_;
  std::unique_ptr<::parquet::arrow::FileWriter> writer_;
  std::vector<double> rows_;
};

// Hashes and numbers each chunk. Writes the times of the first signal and all data.
double timeBareAppends(const Signals& signals, std::size_t chunkRows) {
  const Folder folder;
  return seconds([&] {
    std::unordered_map<std::uint64_t, std::uint64_t> known;
    std::optional<BareColumn> time(folder.file("time"));
    for (std::size_t i = 0; i < signals.count; ++i) {
      BareColumn data(folder.file(std::to_string(i)));
      const auto* values = reinterpret_cast<const double*>(signals.of(i).data());
      for (std::size_t at = 0; at < signals.rows(); at += chunkRows) {
        known.emplace(bareHash(&signals.time[at], chunkRows * sizeof(double)), known.size());
        if (time) time->append(&signals.time[at], chunkRows);
        known.emplace(bareHash(&values[at], chunkRows * sizeof(double)), known.size());
        data.append(&values[at], chunkRows);
      }
      if (time) time->finish();
      time.reset();
      data.finish();
    }
  });
}

// Appends chunks of rows to a pool and reads all rows back.
void streamedPool(benchmark::State& state) {
  const Signals signals(static_cast<std::size_t>(state.range(0)), 1'000'000,
                        static_cast<std::size_t>(state.range(0)));
  const auto chunkRows = static_cast<std::size_t>(state.range(1));
  const DictionaryOption dictionary(false);
  Rounds rounds;
  for (auto _ : state) {
    StreamedPool pool(signals, kBatchRows, /*isSafe=*/false);
    rounds.takeTurns({{"append", [&] { return pool.timeAppends(chunkRows); }},
                      {"arrow", [&] { return timeBareAppends(signals, chunkRows); }}});
    rounds.takeTurns({{"read", [&] { return pool.timeGetData(); }},
                      {"read(2)", [&] {
                         std::vector<std::vector<char>> data(signals.count);
                         return secondsFromTrimmedHeap([&] {
                           for (std::size_t i = 0; i < signals.count; ++i) {
                             data[i].resize(signals.rows() * sizeof(double));
                             readBytes(pool.file(i), 4, data[i]);
                           }
                         });
                       }}});
    state.SetIterationTime(rounds.last("append"));
  }
  const std::size_t appends = 2 * signals.count * signals.rows() / chunkRows;
  reportThroughput(state, signals.count * signals.rows(), signals.bytes());
  state.counters["append_vs_arrow"] = rounds.ratio("append", "arrow");
  state.counters["ns_per_append"] = rounds.median("append") / static_cast<double>(appends) * 1e9;
  state.counters["read_vs_read2"] = rounds.ratio("read", "read(2)");
}

BENCHMARK(streamedPool)
    ->Name("streamed_pool")
    ->ArgNames({"signals", "chunk"})
    ->Args({20, kChunkRows})
    ->Args({5, 1})
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Reads 10,000 rows from the middle of files of a million rows: the first window of each file,
// which opens it, and later ones.
void poolWindows(benchmark::State& state) {
  constexpr std::size_t kWindowRows = 10'000;
  const Signals signals(20, 1'000'000, 20);
  const auto batchRows = static_cast<std::size_t>(state.range(0));
  const DictionaryOption dictionary(false);
  Rounds rounds;
  for (auto _ : state) {
    StreamedPool pool(signals, batchRows, state.range(1) != 0);
    pool.timeAppends(kChunkRows);
    std::vector<char> bytes;
    rounds.add("first", pool.timeWindows(495'000, kWindowRows, bytes));
    for (std::size_t i = 0; i < 5; ++i) {
      rounds.add("known", pool.timeWindows(495'000 + 777 * i, kWindowRows, bytes));
      rounds.add("read(2)", seconds([&] { readBytes(pool.file(i), 3'960'000, bytes); }));
    }
    state.SetIterationTime(rounds.last("known"));
  }
  for (const char* name : {"first", "known", "read(2)"}) {
    state.counters[std::string("us_") + name] = rounds.median(name) * 1e6;
  }
}

BENCHMARK(poolWindows)
    ->Name("pool_windows")
    ->ArgNames({"batch", "safe"})
    ->ArgsProduct({{kBatchRows, 1'000'000}, {0, 1}})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace kyr::bench
