#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <ostream>
#include <tuple>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"

namespace kyr::test {

using Dims = std::vector<std::vector<std::size_t>>;

template <typename T>
std::vector<char> bytesOf(const std::vector<T>& values) {
  std::vector<char> bytes(values.size() * sizeof(T));
  if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

/// The samples that a signal takes and returns. Two are equal if all their bits are.
struct Samples {
  std::vector<double> time;
  std::vector<char> data;
  Dims dims;
  std::vector<int> lengths;

  friend bool operator==(const Samples& a, const Samples& b) {
    return bytesOf(a.time) == bytesOf(b.time) && a.data == b.data && a.dims == b.dims &&
           a.lengths == b.lengths;
  }
  friend void PrintTo(const Samples& s, std::ostream* out) {
    *out << ::testing::PrintToString(std::make_tuple(s.time, s.data, s.dims, s.lengths));
  }
};

inline void write(parquet::ParquetSignal& signal, const Samples& samples) {
  signal.setData(samples.time, samples.data, samples.dims, samples.lengths);
}

/// \param outputs  what they hold before the read
inline Samples read(parquet::ParquetSignal& signal, Samples outputs = {}) {
  signal.getData(outputs.time, outputs.data, outputs.dims, outputs.lengths);
  return outputs;
}

}  // namespace kyr::test
