#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kyr::compare {

/// What the samples are; workloads.py makes the same ones.
enum class Values {
  noise,      ///< float64 in [-1, 1), of which hardly one repeats
  quantised,  ///< float64 in volts as a 12-bit converter gives them: a slow wave and some noise
  counts,     ///< the same converter's numbers, int16
};

/// Signals over one time vector. They are stored whole, appended in chunks, or recorded live.
struct Workload {
  std::string name;
  std::size_t signals;
  std::size_t rows;
  Values values = Values::noise;
  std::size_t chunkRows = 0;   ///< rows of an append; 0: each vector is stored whole
  std::size_t windowRows = 0;  ///< rows of a window; 0: no windows are read
  std::size_t elements = 1;    ///< of a sample; 9 stands for a 3x3 matrix
  std::size_t distinct = 0;    ///< signals of different content; 0: all of them
  std::size_t flushRows = 0;   ///< steps between two flushes; 0: nothing is recorded live

  bool isWhole() const { return chunkRows == 0; }
  /// Each step appends a sample of every signal.
  bool isLive() const { return flushRows > 0; }
  std::size_t elementSize() const { return values == Values::counts ? 2 : 8; }
  std::size_t sampleSize() const { return elements * elementSize(); }
};

/// \throws std::invalid_argument for an unknown name
Workload findWorkload(const std::string& name, double scale);
std::vector<std::string> workloadNames();

std::vector<double> makeTime(const Workload& workload);
std::vector<char> makeSignal(const Workload& workload, std::size_t signal);

/// All that a workload stores, in memory.
struct Data {
  explicit Data(const Workload& workload);

  /// Column 0 is the time, column i signal i - 1.
  std::size_t columns() const { return signals.size() + 1; }
  const char* column(std::size_t i) const {
    return i == 0 ? reinterpret_cast<const char*>(time.data()) : signals[i - 1].data();
  }

  std::vector<double> time;
  std::vector<std::vector<char>> signals;
  std::vector<double> steps;  ///< live workloads: a sample of each signal, step after step
};

/// Calls sink(column, rows, count) for the chunks of all columns in turn.
template <typename Sink>
void forEachChunk(const Workload& workload, const Data& data, Sink&& sink) {
  std::vector<const char*> next;
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < data.columns(); ++i) {
    next.push_back(data.column(i));
    widths.push_back(i == 0 ? sizeof(double) : workload.sampleSize());
  }
  for (std::size_t at = 0; at < workload.rows; at += workload.chunkRows) {
    const std::size_t left = workload.rows - at;
    const std::size_t count = left < workload.chunkRows ? left : workload.chunkRows;
    for (std::size_t i = 0; i < next.size(); ++i) {
      sink(i, next[i], count);
      next[i] += count * widths[i];
    }
  }
}

}  // namespace kyr::compare
