#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>

#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/RedundancyEliminator.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Time and memory per chunk that the chains of stored chunks take, at all lengths.
namespace kyr::bench {

namespace {

namespace checker = parquet::RedundancyChecker;
using namespace parquet::RedundancyEliminator;
using NodePtr = std::unique_ptr<FileNode>;

NodePtr node(unsigned long number) {
  return CreateNewFileNode(number, 1, 2 * number, 2 * number + 1);
}

struct Chain {
  explicit Chain(std::size_t nodes) : head(node(0)), last(head.get()) {
    for (std::size_t i = 1; i < nodes; ++i) AppendToFile(last, node(i));
  }

  NodePtr head;
  FileNode* last;
};

std::size_t lengthOf(const FileNode* head) {
  std::size_t length = 0;
  for (; head; head = head->next.get()) ++length;
  return length;
}

// Every operation on whole chains, per node, and the registration of one. The cost per node must
// not depend on the length of the chain.
void chain(benchmark::State& state) {
  const auto nodes = static_cast<std::size_t>(state.range(0));
  Rounds rounds;
  for (auto _ : state) {
    malloc_trim(0);
    Registry registry;
    std::unique_ptr<Chain> built;
    NodePtr copy;
    std::size_t length = 0;
    double total = rounds.add("build", seconds([&] { built = std::make_unique<Chain>(nodes); }));
    total += rounds.add("walk", seconds([&] { length = lengthOf(built->head.get()); }));
    total += rounds.add("copy", seconds([&] {
                          copy = CopyWithModification(built->head.get(), built->last,
                                                      [](FileNode* each) { each->storageId = 2; });
                        }));
    if (length != nodes || lengthOf(copy.get()) != nodes) {
      throw std::runtime_error("nodes went missing");
    }
    rounds.add("register", seconds([&] { RegisterNewFiles(registry, copy); }));
    total += rounds.add("destroy", seconds([&] { built.reset(); }));
    state.SetIterationTime(total);
  }
  for (const char* name : {"build", "walk", "copy", "destroy"}) {
    state.counters[std::string("ns_") + name] =
        rounds.median(name) / static_cast<double>(nodes) * 1e9;
  }
  state.counters["ns_register_all"] = rounds.median("register") * 1e9;
  reportThroughput(state, nodes);
}

BENCHMARK(chain)
    ->ArgName("nodes")
    ->RangeMultiplier(10)
    ->Range(100'000, 10'000'000)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// Appends chunks to a long chain, compared with a chain of ten.
void appendToFile(benchmark::State& state) {
  constexpr std::size_t kAppends = 100'000;
  const auto timeAppends = [](Chain& to) {
    std::vector<NodePtr> fresh;
    for (std::size_t i = 0; i < kAppends; ++i) fresh.push_back(node(i));
    return seconds([&] {
      for (NodePtr& each : fresh) AppendToFile(to.last, std::move(each));
    });
  };
  Chain behind(static_cast<std::size_t>(state.range(0)));
  Rounds rounds;
  for (auto _ : state) {
    Chain brief(10);
    rounds.takeTurns({{"long", [&] { return timeAppends(behind); }},
                      {"short", [&] { return timeAppends(brief); }}});
    state.SetIterationTime(rounds.last("long"));
  }
  reportThroughput(state, kAppends);
  state.counters["ns_append"] = rounds.median("long") / kAppends * 1e9;
  state.counters["vs_short_chain"] = rounds.ratio("long", "short");
}

BENCHMARK(appendToFile)
    ->Name("append_to_file")
    ->ArgName("nodes_before")
    ->RangeMultiplier(10)
    ->Range(1'000, 10'000'000)
    ->UseManualTime()
    ->Iterations(21)
    ->Unit(benchmark::kMicrosecond);

// The memory of each distinct chunk: the checker's entry, with its share of the hash table, and the
// node.
void chunkMemory(benchmark::State& state) {
  const auto chunks = static_cast<std::size_t>(state.range(0));
  const auto values = noise(chunks);
  double entryBytes = 0;
  double nodeBytes = 0;
  for (auto _ : state) {
    const std::size_t before = allocatedBytes();
    checker::Context<unsigned long> context;
    for (const double& value : values) {
      checker::processDataAndCheck(&context, &value, sizeof(value), Double);
    }
    const std::size_t between = allocatedBytes();
    const Chain nodes(chunks);
    entryBytes = static_cast<double>(between - before) / static_cast<double>(chunks);
    nodeBytes = static_cast<double>(allocatedBytes() - between) / static_cast<double>(chunks);
    state.SetIterationTime(1e-9);  // only memory is measured
  }
  state.counters["bytes_checker_entry"] = entryBytes;
  state.counters["bytes_node"] = nodeBytes;
  state.counters["bytes_per_chunk"] = entryBytes + nodeBytes;
}

BENCHMARK(chunkMemory)
    ->Name("chunk_memory")
    ->ArgName("chunks")
    ->Arg(10'000)
    ->Arg(1'000'000)
    ->Arg(5'000'000)
    ->UseManualTime()
    ->Iterations(1);

}  // namespace

}  // namespace kyr::bench
