#include <arrow/status.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/ArrowFiles.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Samples that arrive in chunks, and windows of the rows that were stored.
namespace kyr::bench {

namespace {

constexpr std::size_t kChunkRows = 1'000;
constexpr auto kData = parquet::StreamableSignal::SignalPart::data;

const std::vector<std::vector<unsigned long>> kNoDimensions;
const std::vector<int> kNoSizes;

void check(const parquet::StreamableSignal& signal) {
  if (!signal.writeStatus().ok()) throw std::runtime_error(signal.writeStatus().ToString());
}

double timeChunks(const std::vector<double>& values, std::size_t batchRows) {
  const Folder folder;
  const RowGroupMode mode;
  parquet::SignalPool pool(folder.path("pool"));
  const auto signal = pool.getStreamableSignal(1);
  signal->setBufferSize(batchRows);
  const double time = secondsFromTrimmedHeap([&] {
    for (std::size_t at = 0; at < values.size(); at += kChunkRows) {
      signal->appendData(&values[at], kChunkRows * sizeof(double), kNoDimensions, kNoSizes);
    }
    signal->finish();
  });
  check(*signal);
  return time;
}

// Lets Arrow write the same batches from memory.
double timeArrowBatches(const std::vector<double>& values, std::size_t batchRows) {
  const Folder folder;
  return secondsFromTrimmedHeap([&] {
    PARQUET_ASSIGN_OR_THROW(const auto stream,
                            ::arrow::io::FileOutputStream::Open(folder.file("arrow").string()));
    PARQUET_ASSIGN_OR_THROW(const auto writer,
                            ::parquet::arrow::FileWriter::Open(
                                *scalarSchema(), ::arrow::default_memory_pool(), stream,
                                writerProperties(), ::parquet::default_arrow_writer_properties()));
    for (std::size_t at = 0; at < values.size(); at += batchRows) {
      const std::size_t rows = std::min(batchRows, values.size() - at);
      PARQUET_THROW_NOT_OK(
          writer->WriteTable(*tableOver(&values[at], rows), static_cast<std::int64_t>(rows)));
    }
    PARQUET_THROW_NOT_OK(writer->Close());
    PARQUET_THROW_NOT_OK(stream->Close());
  });
}

double timeHash(const std::vector<double>& values) {
  return seconds([&] {
    for (std::size_t at = 0; at < values.size(); at += kChunkRows) {
      benchmark::DoNotOptimize(parquet::RedundancyChecker::_defaultHasher(
          &values[at], kChunkRows * sizeof(double), Double));
    }
  });
}

// Appends the data part of one signal in chunks of 1,000 rows, compared with Arrow writing the same
// batches.
void appendChunks(benchmark::State& state) {
  const auto values = noise(4'000'000);
  const auto batchRows = static_cast<std::size_t>(state.range(0));
  const DictionaryOption dictionary(state.range(1) != 0);
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"append", [&] { return timeChunks(values, batchRows); }},
                      {"arrow", [&] { return timeArrowBatches(values, batchRows); }},
                      {"hash", [&] { return timeHash(values); }}});
    state.SetIterationTime(rounds.last("append"));
  }
  reportThroughput(state, values.size(), values.size() * sizeof(double));
  state.counters["vs_arrow"] = rounds.ratio("append", "arrow");
  state.counters["hash_share"] = rounds.ratio("hash", "append");
  state.counters["ns_per_row"] = rounds.median("append") / static_cast<double>(values.size()) * 1e9;
}

BENCHMARK(appendChunks)
    ->Name("append_chunks")
    ->ArgNames({"batch", "dictionary"})
    ->ArgsProduct({{1'000, 4'096, 65'536, 1'000'000}, {0, 1}})
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);

// A finished signal of about \p rows rows, in row groups of one length.
class LongSignal {
 public:
  LongSignal(std::size_t rows, std::size_t groupRows)
      : rows_(std::max<std::size_t>(1, rows / groupRows) * groupRows),
        groupRows_(groupRows),
        pool_(folder_.path("pool")) {
    signal_ = pool_.getStreamableSignal(1);
    signal_->setBufferSize(groupRows);
    std::vector<double> chunk = noise(groupRows);
    for (std::size_t at = 0; at < rows_; at += groupRows) {
      chunk.front() = static_cast<double>(at);  // so that no chunk repeats another
      signal_->appendData(chunk.data(), groupRows * sizeof(double), kNoDimensions, kNoSizes);
    }
    signal_->finish();
    check(*signal_);
    expected_ = std::move(chunk);
  }

  double timeWindow(std::size_t from, std::size_t count) {
    std::vector<char> bytes;
    std::vector<std::vector<unsigned long>> dimensions;
    const double time = seconds([&] { signal_->getData(from, from + count, bytes, dimensions); });
    const std::size_t at = from % groupRows_;
    if (bytes.size() != count * sizeof(double) ||
        std::memcmp(bytes.data(), &expected_[at], bytes.size()) != 0) {
      throw std::runtime_error("the window holds other rows");
    }
    return time;
  }

  fs::path file() const {
    return folder_.file("pool") / std::to_string(signal_->getStorageId(kData));
  }
  std::size_t rows() const { return rows_; }

 private:
  std::size_t rows_;
  std::size_t groupRows_;
  Folder folder_;
  RowGroupMode mode_;
  parquet::SignalPool pool_;
  std::shared_ptr<parquet::StreamableSignal> signal_;
  std::vector<double> expected_;
};

// Reads windows of 10,000 rows in the middle of a long file. The first one opens the file.
void readWindow(benchmark::State& state) {
  constexpr std::size_t kWindowRows = 10'000;
  const auto groupRows = static_cast<std::size_t>(state.range(0));
  const DictionaryOption dictionary(state.range(1) != 0);
  LongSignal longSignal(sizes().windowRows, groupRows);
  const std::size_t middle = longSignal.rows() / groupRows / 2 * groupRows;
  std::size_t from = middle + 1;
  const double first = longSignal.timeWindow(from, kWindowRows);
  const auto arrow = openFile(longSignal.file());
  const int group = static_cast<int>(middle / groupRows);
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"window", [&] { return longSignal.timeWindow(from, kWindowRows); }},
                      {"group", [&] {
                         std::shared_ptr<::arrow::Table> table;
                         return seconds(
                             [&] { PARQUET_THROW_NOT_OK(arrow->ReadRowGroup(group, &table)); });
                       }}});
    state.SetIterationTime(rounds.last("window"));
    from = middle + 1 + (from * 7919) % (groupRows - kWindowRows);
  }
  reportThroughput(state, kWindowRows, kWindowRows * sizeof(double));
  state.counters["first_us"] = first * 1e6;
  state.counters["vs_row_group"] = rounds.ratio("window", "group");
  state.counters["row_groups"] = arrow->num_row_groups();
}

BENCHMARK(readWindow)
    ->Name("read_window")
    ->ArgNames({"row_group", "dictionary"})
    ->Args({1'000'000, 0})
    ->Args({1'000'000, 1})
    ->Args({65'536, 0})
    ->UseManualTime()
    ->Iterations(51)
    ->Unit(benchmark::kMicrosecond);

// The append with which a signal differs from one that it has repeated for a number of one-row
// chunks: the rows that they share are copied.
void divergeAfter(benchmark::State& state) {
  const auto shared = static_cast<std::size_t>(state.range(0));
  const auto values = noise(shared);
  Rounds rounds;
  for (auto _ : state) {
    const Folder folder;
    const RowGroupMode mode;
    parquet::SignalPool pool(folder.path("pool"));
    const auto first = pool.getStreamableSignal(1);
    const auto second = pool.getStreamableSignal(2);
    for (const auto& signal : {first, second}) {
      for (const double& value : values) signal->appendTime(&value, 1);
      if (signal == first) signal->finish();
    }
    const double other = 2;
    const double time = seconds([&] { second->appendTime(&other, 1); });
    check(*second);
    state.SetIterationTime(rounds.add("diverge", time));
  }
  state.counters["us_per_shared_chunk"] =
      rounds.median("diverge") / static_cast<double>(shared) * 1e6;
}

BENCHMARK(divergeAfter)
    ->Name("diverge_after")
    ->ArgName("chunks")
    ->RangeMultiplier(10)
    ->Range(10, 100'000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace kyr::bench
