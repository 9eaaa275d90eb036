#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/SerializationOptions.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/platform/Path.h"

namespace kyr::bench {

namespace fs = std::filesystem;

/// Sizes that the command line can lower for a quick run; see Main.cc.
struct Sizes {
  std::size_t appendRows = 5'000'000;
  std::size_t windowRows = 100'000'000;
};

inline Sizes& sizes() {
  static Sizes values;
  return values;
}

/// A directory for a benchmark's files. The destructor removes it with everything in it.
class Folder {
 public:
  Folder() : root_(make()) {}
  ~Folder() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  fs::path file(const std::string& name) const { return root_ / name; }
  Path path(const std::string& name) const { return Path::fromFilesystem(file(name)); }

 private:
  static fs::path make() {
    std::string pattern = fs::temp_directory_path() / "kyr-bench-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make " + pattern);
    return pattern;
  }

  fs::path root_;
};

/// Switches row-group mode on for pools that are made while the object lives.
class RowGroupMode {
 public:
  RowGroupMode() { FeatureFlag::set(kFlag, true); }
  ~RowGroupMode() { FeatureFlag::set(kFlag, false); }
  RowGroupMode(const RowGroupMode&) = delete;
  RowGroupMode& operator=(const RowGroupMode&) = delete;

 private:
  static constexpr const char* kFlag = "fKYRUseParquetRowGroup";
};

/// Sets the process-wide dictionary option while the object lives.
class DictionaryOption {
 public:
  explicit DictionaryOption(bool on)
      : before_(std::exchange(parquet::serialization_options::bDictionary, on)) {}
  ~DictionaryOption() { parquet::serialization_options::bDictionary = before_; }
  DictionaryOption(const DictionaryOption&) = delete;
  DictionaryOption& operator=(const DictionaryOption&) = delete;

 private:
  bool before_;
};

/// Elapsed seconds of \p work, for workloads that wait for the disk.
template <typename Work>
double wallSeconds(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Seconds of processor time of \p work, the kernel's included. Other programs on the machine
/// change it little.
template <typename Work>
double seconds(Work&& work) {
  const auto now = [] {
    struct timespec time {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
  };
  const double start = now();
  work();
  return now() - start;
}

/// Does what seconds() does after the heap has given its free memory back, so that every contender
/// pays for its own page faults.
template <typename Work>
double secondsFromTrimmedHeap(Work&& work) {
  malloc_trim(0);
  return seconds(std::forward<Work>(work));
}

inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Times of contenders that take turns, each once per round, so that other programs on the machine
/// slow all of them down alike.
class Rounds {
 public:
  using Contender = std::pair<std::string, std::function<double()>>;

  /// Runs each contender once and notes the time that it returns. Each round begins with another
  /// contender, so that the order favours none.
  void takeTurns(std::vector<Contender> contenders) {
    const auto first = static_cast<std::ptrdiff_t>(round_++ % contenders.size());
    std::rotate(contenders.begin(), contenders.begin() + first, contenders.end());
    for (const auto& [name, run] : contenders) add(name, run());
  }

  double add(const std::string& contender, double time) {
    times_[contender].push_back(time);
    return time;
  }

  double last(const std::string& contender) const { return times_.at(contender).back(); }

  double median(const std::string& contender) const { return bench::median(times_.at(contender)); }

  /// The median over the rounds of the time of \p contender divided by that of \p base.
  double ratio(const std::string& contender, const std::string& base) const {
    const auto& above = times_.at(contender);
    const auto& below = times_.at(base);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < above.size(); ++i) ratios.push_back(above[i] / below.at(i));
    return bench::median(std::move(ratios));
  }

 private:
  std::map<std::string, std::vector<double>> times_;
  std::size_t round_ = 0;
};

/// Reports the throughput in items and, if \p bytes is not 0, in bytes.
inline void reportThroughput(benchmark::State& state, std::size_t items, std::size_t bytes = 0) {
  const auto rounds = static_cast<std::int64_t>(state.iterations());
  state.SetItemsProcessed(rounds * static_cast<std::int64_t>(items));
  if (bytes > 0) state.SetBytesProcessed(rounds * static_cast<std::int64_t>(bytes));
}

/// Bytes that are allocated with malloc.
inline std::size_t allocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace kyr::bench
