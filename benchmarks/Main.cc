#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <exception>
#include <string_view>
#include <system_error>

#include "support/Bench.h"

namespace {

// Removes "--NAME=COUNT" from the arguments and returns the count.
bool takeCount(std::string_view argument, std::string_view name, std::size_t& count) {
  if (argument.substr(0, name.size()) != name) return false;
  argument.remove_prefix(name.size());
  const char* end = argument.data() + argument.size();
  const auto parsed = std::from_chars(argument.data(), end, count);
  return parsed.ec == std::errc() && parsed.ptr == end && count > 0;
}

}  // namespace

/// Takes Google Benchmark's options, and --append_rows=COUNT and --window_rows=COUNT for the two
/// workloads that are too long for a quick run.
int main(int argc, char** argv) {
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (!takeCount(argv[i], "--append_rows=", kyr::bench::sizes().appendRows) &&
        !takeCount(argv[i], "--window_rows=", kyr::bench::sizes().windowRows)) {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  // Exceptions are caught, so that the files of a failing workload are removed.
  try {
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  benchmark::Shutdown();
  return 0;
}
