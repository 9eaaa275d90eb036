// A program of someone who has only the installed package: stores a signal and reads it back.
#include <cstddef>
#include <cstring>
#include <iostream>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SignalPool.h"

int main() {
  const std::vector<double> time{0.0, 0.5, 1.0};
  const std::vector<double> values{1.25, -2.5, 1e300};
  std::vector<char> bytes(values.size() * sizeof(double));
  std::memcpy(bytes.data(), values.data(), bytes.size());

  kyr::parquet::SignalPool pool;
  auto signal = pool.getSignal(1);
  signal->setDataType(kyr::Double);
  signal->setCategory(kyr::Scalar);
  signal->setData(time, bytes, {}, {});

  std::vector<double> time_read;
  std::vector<char> bytes_read;
  std::vector<std::vector<std::size_t>> dims_read;
  signal->getData(time_read, bytes_read, dims_read);
  if (time_read != time || bytes_read != bytes) {
    std::cerr << "the signal read back differs from the one stored\n";
    return 1;
  }
  return 0;
}
