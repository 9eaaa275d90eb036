#include <arrow/status.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <stdexcept>

#include "kyr/parquet/RedundancyEliminator.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/Bench.h"

/// Appends in a pool where many signals begin with the same chunk, compared with a pool where one
/// signal does.
namespace kyr::bench {

namespace {

using namespace parquet::RedundancyEliminator;
using parquet::SignalPool;
using parquet::StreamableSignal;

constexpr std::size_t kAppends = 1'000;

// A pool of signals whose first chunk is equal and whose second one differs.
class CrowdedPool {
 public:
  explicit CrowdedPool(int signals) : pool_(folder_.path("pool")) {
    for (int i = 0; i < signals; ++i) {
      const auto signal = add();
      append(*signal, 0);
      append(*signal, ++value_);
      signal->finish();
    }
  }

  // The appends of one more signal, whose first chunk is that of all others and whose second one is
  // new.
  double probe(Rounds& rounds, const std::string& name) {
    const auto signal = add();
    double total = rounds.add(name + "_first", seconds([&] { append(*signal, 0); }));
    total += rounds.add(name + "_second", seconds([&] { append(*signal, ++value_); }));
    total += rounds.add(name + "_later", seconds([&] {
                          for (std::size_t i = 2; i < kAppends; ++i) append(*signal, ++value_);
                        }));
    signal->finish();
    if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
    return total;
  }

 private:
  std::shared_ptr<StreamableSignal> add() { return pool_.getStreamableSignal(nextId_++); }
  static void append(StreamableSignal& signal, double value) { signal.appendTime(&value, 1); }

  Folder folder_;
  RowGroupMode mode_;
  SignalPool pool_;
  int nextId_ = 0;
  double value_ = 0;
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

// Chains that begin with equal chunks, each followed by a chunk of its own.
class Chains {
 public:
  Chains(std::size_t chains, std::size_t equalChunks) : registry_(std::make_shared<Registry>()) {
    unsigned long number = equalChunks;
    for (std::size_t i = 0; i < chains; ++i) {
      auto head = CreateNewFileNode(0, static_cast<int>(i), 0, 1);
      FileNode* last = head.get();
      for (unsigned long equal = 1; equal < equalChunks; ++equal) {
        AppendToFile(last, CreateNewFileNode(equal, static_cast<int>(i), 0, 1));
      }
      AppendToFile(last, CreateNewFileNode(++number, static_cast<int>(i), 0, 1));
      RegisterNewFiles(*registry_, head);
    }
  }

  // Matches a part that repeats the equal chunks, and uses the lists as a signal does.
  double timeRepeating(std::size_t equalChunks) const {
    const auto context = CreateContext(registry_);
    int adopted = 0;
    const StartChain start = [](const auto&, const auto&) { return std::nullopt; };
    const ExtendChain extend = [](FileNode*) { return std::nullopt; };
    const ReuseChains reuse = [&](const NodeList& heads) { adopted += heads[0]->storageId + 1; };
    const double time = seconds([&] {
      for (unsigned long number = 0; number < equalChunks; ++number) {
        EliminateRedundancy(context.get(), number, start, extend, reuse);
      }
    });
    if (adopted != static_cast<int>(equalChunks)) throw std::runtime_error("chunks did not match");
    return time;
  }

 private:
  std::shared_ptr<Registry> registry_;
};

// Times the eliminator alone while all chains still match.
void matchAmongHeads(benchmark::State& state) {
  const auto equalChunks = static_cast<std::size_t>(state.range(1));
  const Chains many(static_cast<std::size_t>(state.range(0)), equalChunks);
  const Chains one(1, equalChunks);
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"many", [&] { return many.timeRepeating(equalChunks); }},
                      {"one", [&] { return one.timeRepeating(equalChunks); }}});
    state.SetIterationTime(rounds.last("many"));
  }
  reportThroughput(state, equalChunks);
  state.counters["ns_append"] = rounds.median("many") / static_cast<double>(equalChunks) * 1e9;
  state.counters["vs_one"] = rounds.ratio("many", "one");
}

BENCHMARK(matchAmongHeads)
    ->Name("match_among_heads")
    ->ArgNames({"heads", "equal_chunks"})
    ->Args({1'000, 1})
    ->Args({1'000, 100})
    ->UseManualTime()
    ->Iterations(201)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace kyr::bench
