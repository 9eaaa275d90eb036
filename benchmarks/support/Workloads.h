#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

/// The values that the workloads store. They are the same in every run.
namespace kyr::bench {

/// A clock of 1 kHz [s].
inline std::vector<double> clockTimes(std::size_t count) {
  std::vector<double> times(count);
  for (std::size_t i = 0; i < count; ++i) times[i] = 0.001 * static_cast<double>(i);
  return times;
}

/// Noise whose values hardly ever repeat: the worst case for dictionaries and for the checker.
inline std::vector<double> noise(std::size_t count, std::uint64_t seed = 1) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> values(-1, 1);
  std::vector<double> result(count);
  for (double& value : result) value = values(random);
  return result;
}

/// The output of a 12-bit converter: 4096 values that repeat.
inline std::vector<double> quantised(std::size_t count, std::uint64_t seed = 1) {
  std::mt19937_64 random(seed);
  std::vector<double> result(count);
  for (double& value : result) value = static_cast<double>(random() % 4096) / 2048 - 1;
  return result;
}

inline std::vector<char> bytesOf(const std::vector<double>& values) {
  std::vector<char> bytes(values.size() * sizeof(double));
  if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

}  // namespace kyr::bench
