#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>

#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "platform/DiskFile.h"
#include "platform/Folder.h"
#include "support/ArrowFiles.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// The cost of files that can be recovered at any moment.
namespace kyr::bench {

namespace {

using Tables = std::vector<std::shared_ptr<::arrow::Table>>;

// Batches that are slices of \p values and share its memory.
Tables cut(const std::vector<double>& values, std::size_t batchRows) {
  Tables tables;
  for (std::size_t at = 0; at + batchRows <= values.size(); at += batchRows) {
    tables.push_back(tableOver(&values[at], batchRows));
  }
  return tables;
}

std::unique_ptr<parquet::GrowingFile> create(const fs::path& path) {
  return parquet::GrowingFile::create(path, scalarSchema(), writerProperties());
}

double timeGrowing(const fs::path& path, const Tables& tables, std::size_t batches,
                   std::uint64_t& footerBytes) {
  return seconds([&] {
    const auto file = create(path);
    for (std::size_t i = 0; i < batches; ++i) file->appendBatch(*tables[i % tables.size()]);
    file->finish();
    footerBytes = file->footerBytes();
  });
}

double timeArrow(const fs::path& path, const Tables& tables, std::size_t batches) {
  return seconds([&] {
    PARQUET_ASSIGN_OR_THROW(const auto stream, ::arrow::io::FileOutputStream::Open(path.string()));
    PARQUET_ASSIGN_OR_THROW(auto writer, ::parquet::arrow::FileWriter::Open(
                                             *scalarSchema(), ::arrow::default_memory_pool(),
                                             stream, writerProperties()));
    for (std::size_t i = 0; i < batches; ++i) {
      const auto& table = *tables[i % tables.size()];
      PARQUET_THROW_NOT_OK(writer->WriteTable(table, table.num_rows()));
    }
    PARQUET_THROW_NOT_OK(writer->Close());
    PARQUET_THROW_NOT_OK(stream->Close());
  });
}

double timeReadingBytes(const fs::path& path) {
  std::vector<char> piece(std::size_t{1} << 20U);
  return seconds([&] {
    const DiskFile file(path, DiskFile::Mode::readOnly);
    std::uint64_t at = 0;
    while (const std::size_t got = file.readAt(at, piece.data(), piece.size())) at += got;
  });
}

// Damages a file as a crash in the middle of a batch does.
double timeRecovery(const fs::path& path, std::size_t batches) {
  fs::resize_file(path, fs::file_size(path) - 1);
  parquet::RecoveryReport report;
  const double time = seconds(
      [&] { report = parquet::recoverFile(kyr::Folder(path.parent_path()), path.filename()); });
  if (report.batchesKept != batches) throw std::runtime_error("batches went missing");
  return time;
}

// A growing file, compared with Arrow's writer and the same row groups.
void grow(benchmark::State& state) {
  const auto batches = static_cast<std::size_t>(state.range(0));
  const auto batchRows = static_cast<std::size_t>(state.range(1));
  const DictionaryOption dictionary(state.range(2) != 0);
  const auto values = noise(std::max<std::size_t>(batchRows, 1'000'000));
  const Tables tables = cut(values, batchRows);
  const Folder folder;
  const fs::path growing = folder.file("growing");
  const fs::path plain = folder.file("plain");
  std::uint64_t footerBytes = 0;
  std::uint64_t growingBytes = 0;
  std::uint64_t plainBytes = 0;
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"grow",
                       [&] {
                         const double time = timeGrowing(growing, tables, batches, footerBytes);
                         growingBytes = fs::file_size(growing);
                         rounds.add("read", timeReadingBytes(growing));
                         rounds.add("recover", timeRecovery(growing, batches));
                         fs::remove(growing);
                         return time;
                       }},
                      {"arrow", [&] {
                         const double time = timeArrow(plain, tables, batches);
                         plainBytes = fs::file_size(plain);
                         fs::remove(plain);
                         return time;
                       }}});
    state.SetIterationTime(rounds.last("grow"));
  }
  reportThroughput(state, batches * batchRows, growingBytes);
  const auto perBatch = [&](double total) { return total / static_cast<double>(batches); };
  state.counters["vs_arrow"] = rounds.ratio("grow", "arrow");
  state.counters["us_per_batch"] = perBatch(rounds.median("grow")) * 1e6;
  state.counters["bytes_more_per_batch"] =
      perBatch(static_cast<double>(growingBytes) - static_cast<double>(plainBytes));
  state.counters["footer_share"] =
      static_cast<double>(footerBytes) / static_cast<double>(growingBytes);
  state.counters["recover_vs_read"] = rounds.ratio("recover", "read");
  state.counters["recover_us_per_MB"] =
      rounds.median("recover") / static_cast<double>(growingBytes) * 1e12;
}

BENCHMARK(grow)
    ->ArgNames({"batches", "rows", "dictionary"})
    ->Args({1'000, 65'536, 0})
    ->Args({1'000, 65'536, 1})
    ->Args({1'000, 4'096, 0})
    ->Args({10'000, 100, 0})
    ->Args({10'000, 100, 1})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// Small batches: compares the last thousand with the first thousand, and counts how often the file
// is published.
void growLong(benchmark::State& state) {
  constexpr std::size_t kPart = 1'000;
  const auto batches = static_cast<std::size_t>(state.range(0));
  const auto values = noise(100'000);
  const Tables tables = cut(values, 100);
  double published = 0;
  double longestGap = 0;
  double memory = 0;
  Rounds rounds;
  for (auto _ : state) {
    const Folder folder;
    const auto file = create(folder.file("growing"));
    const std::size_t before = allocatedBytes();
    std::size_t lastPublished = 0;
    published = longestGap = 0;
    const auto append = [&](std::size_t from, std::size_t to) {
      return seconds([&] {
        for (std::size_t i = from; i < to; ++i) {
          file->appendBatch(*tables[i % tables.size()]);
          if (!file->isPublished()) continue;
          ++published;
          longestGap = std::max(longestGap, static_cast<double>(i - lastPublished));
          lastPublished = i;
        }
      });
    };
    rounds.add("first", append(0, kPart));
    append(kPart, batches - kPart);
    rounds.add("last", append(batches - kPart, batches));
    memory = static_cast<double>(allocatedBytes() - before);
    rounds.add("publish", seconds([&] { file->publish(); }));
    state.SetIterationTime(rounds.last("last"));
  }
  state.counters["last_vs_first"] = rounds.ratio("last", "first");
  state.counters["publish_us_per_batch"] =
      rounds.median("publish") / static_cast<double>(batches) * 1e6;
  state.counters["published"] = published;
  state.counters["longest_gap"] = longestGap;
  state.counters["memory_per_batch"] = memory / static_cast<double>(batches);
}

BENCHMARK(growLong)
    ->Name("grow_long")
    ->ArgName("batches")
    ->Arg(10'000)
    ->Arg(100'000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace kyr::bench
