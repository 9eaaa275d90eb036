#include <arrow/status.h>
#include <benchmark/benchmark.h>

#include <stdexcept>
#include <string>

#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/Bench.h"

/// Appends in a pool where many signals begin with the same chunk, compared with a pool where one
/// signal does.
namespace kyr::bench {

namespace {

using parquet::SignalPool;
using parquet::StreamableSignal;

constexpr std::size_t kAppends = 1'000;

// A pool of signals whose first chunks are equal and whose next one differs.
class CrowdedPool {
 public:
  explicit CrowdedPool(int signals, std::size_t equalChunks = 1) : pool_(folder_.path("pool")) {
    for (int i = 0; i < signals; ++i) {
      addSignal([&](auto append) {
        for (std::size_t equal = 0; equal < equalChunks; ++equal) append(equal);
        append(newValue());
      });
    }
  }

  // A signal that gets what \p appends does, a function of a function that appends a value.
  template <typename Appends>
  void addSignal(const Appends& appends) {
    const auto signal = pool_.getStreamableSignal(nextId_++);
    appends([&signal](auto number) {
      const auto value = static_cast<double>(number);
      signal->appendTime(&value, 1);
    });
    signal->finish();
    if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
  }

  // A value that no signal has yet.
  double newValue() { return value_ += 1; }

  // The appends of one more signal, whose first chunk is that of all others and whose second one is
  // new.
  double probe(Rounds& rounds, const std::string& name) {
    double total = 0;
    addSignal([&](auto append) {
      total = rounds.add(name + "_first", seconds([&] { append(0); }));
      total += rounds.add(name + "_second", seconds([&] { append(newValue()); }));
      total += rounds.add(name + "_later", seconds([&] {
                            for (std::size_t i = 2; i < kAppends; ++i) append(newValue());
                          }));
    });
    return total;
  }

 private:
  Folder folder_;
  RowGroupMode mode_;
  SignalPool pool_;
  int nextId_ = 0;
  double value_ = 1e6;
};

void reportBeside(benchmark::State& state, const Rounds& rounds, double laterAppends) {
  state.counters["ns_first"] = rounds.median("many_first") * 1e9;
  state.counters["ns_second"] = rounds.median("many_second") * 1e9;
  state.counters["ns_later"] = rounds.median("many_later") * 1e9 / laterAppends;
  state.counters["vs_one"] = rounds.ratio("many", "one");
  for (const std::string part : {"first", "second", "later"}) {
    state.counters["vs_one_" + part] = rounds.ratio("many_" + part, "one_" + part);
  }
}

void appendAmongHeads(benchmark::State& state) {
  CrowdedPool many(static_cast<int>(state.range(0)));
  CrowdedPool one(1);
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"many", [&] { return many.probe(rounds, "many"); }},
                      {"one", [&] { return one.probe(rounds, "one"); }}});
    state.SetIterationTime(rounds.last("many"));
  }
  reportThroughput(state, kAppends);
  reportBeside(state, rounds, kAppends - 2);
}

BENCHMARK(appendAmongHeads)
    ->Name("append_among_heads")
    ->ArgName("heads")
    ->Arg(1'000)
    ->UseManualTime()
    ->Iterations(51)
    ->Unit(benchmark::kMicrosecond);

// Times a signal that repeats \p equalChunks chunks of all others, and then differs.
double repeatAndDiffer(CrowdedPool& pool, std::size_t equalChunks, Rounds& rounds,
                       const std::string& name) {
  double total = 0;
  pool.addSignal([&](auto append) {
    total = rounds.add(name + "_equal", seconds([&] {
                         for (std::size_t i = 0; i < equalChunks; ++i) append(i);
                       }));
    total += rounds.add(name + "_differs", seconds([&] { append(pool.newValue()); }));
  });
  return total;
}

void matchAmongHeads(benchmark::State& state) {
  const auto equalChunks = static_cast<std::size_t>(state.range(1));
  CrowdedPool many(static_cast<int>(state.range(0)), equalChunks);
  CrowdedPool one(1, equalChunks);
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"many", [&] { return repeatAndDiffer(many, equalChunks, rounds, "many"); }},
                      {"one", [&] { return repeatAndDiffer(one, equalChunks, rounds, "one"); }}});
    state.SetIterationTime(rounds.last("many"));
  }
  reportThroughput(state, equalChunks);
  state.counters["ns_append"] =
      rounds.median("many_equal") / static_cast<double>(equalChunks) * 1e9;
  for (const std::string part : {"equal", "differs"}) {
    state.counters["vs_one_" + part] = rounds.ratio("many_" + part, "one_" + part);
  }
}

BENCHMARK(matchAmongHeads)
    ->Name("match_among_heads")
    ->ArgNames({"heads", "equal_chunks"})
    ->Args({1'000, 1})
    ->Args({1'000, 100})
    ->UseManualTime()
    ->Iterations(21)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace kyr::bench
