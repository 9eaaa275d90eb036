#include "Workload.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace kyr::compare {

namespace {

const std::vector<Workload>& workloads() {
  static const std::vector<Workload> all = {
      {"W1", 200, 100'000},
      {"W1q", 200, 100'000, Values::quantised},
      {"W1i", 200, 100'000, Values::counts},
      {"W1m", 20, 100'000, Values::noise, 0, 0, 9},
      {"W2", 20, 1'000'000, Values::noise, 1'000, 10'000},
      {"W3", 5, 1'000'000, Values::noise, 1},
      {"W4", 5'000, 200},
      {"W5", 200, 100'000, Values::noise, 0, 0, 1, 20},
      {"W7", 1'000, 1'000, Values::noise, 0, 0, 1, 0, 100},
      {"W7l", 10'000, 1'000, Values::noise, 0, 0, 1, 0, 100},
      {"W7w", 100, 20'000, Values::noise, 0, 10'000, 1, 0, 100},
  };
  return all;
}

std::size_t scaled(std::size_t count, double scale) {
  return std::max<std::size_t>(
      100, static_cast<std::size_t>(std::lround(static_cast<double>(count) * scale)));
}

std::uint64_t randomBits(std::uint64_t seed, std::uint64_t i) {
  std::uint64_t x = (seed << 32 | i) + 0x9e3779b97f4a7c15;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

// One of 4096 steps: a wave of 1,500 steps, and noise with a deviation of 4.6.
std::int16_t converted(std::uint64_t seed, std::uint64_t i) {
  const std::uint64_t period = 20'000 + 7 * seed;
  const double phase = static_cast<double>(i % period) / static_cast<double>(period) * 2 - 1;
  const double wave = 4 * phase * (1 - std::fabs(phase));
  const std::uint64_t bits = randomBits(seed, i);
  const auto noise =
      static_cast<double>((bits & 7) + (bits >> 3 & 7) + (bits >> 6 & 7) + (bits >> 9 & 7)) - 14;
  return static_cast<std::int16_t>(std::floor(2048 + 1500 * wave) + noise);
}

template <typename T, typename Make>
std::vector<char> makeBytes(std::size_t count, Make&& make) {
  std::vector<char> bytes(count * sizeof(T));
  for (std::size_t i = 0; i < count; ++i) {
    const T value = make(i);
    std::memcpy(&bytes[i * sizeof(T)], &value, sizeof(T));
  }
  return bytes;
}

}  // namespace

Workload findWorkload(const std::string& name, double scale) {
  for (Workload workload : workloads()) {
    if (workload.name != name) continue;
    const bool hasFewRows = name == "W4" || workload.isLive();
    std::size_t& size = hasFewRows ? workload.signals : workload.rows;
    size = scaled(size, scale);
    if (!workload.isLive()) workload.windowRows = std::min(workload.windowRows, workload.rows / 4);
    return workload;
  }
  throw std::invalid_argument("no workload is called " + name);
}

std::vector<std::string> workloadNames() {
  std::vector<std::string> names;
  for (const Workload& workload : workloads()) names.push_back(workload.name);
  return names;
}

std::vector<double> makeTime(const Workload& workload) {
  std::vector<double> time(workload.rows);
  for (std::size_t i = 0; i < time.size(); ++i) time[i] = 0.001 * static_cast<double>(i);
  return time;
}

std::vector<char> makeSignal(const Workload& workload, std::size_t signal) {
  const std::uint64_t seed = workload.distinct == 0 ? signal : signal % workload.distinct;
  const std::size_t count = workload.rows * workload.elements;
  switch (workload.values) {
    case Values::quantised:
      return makeBytes<double>(count, [&](std::size_t i) {
        return static_cast<double>(converted(seed, i)) * 5 / 4096 - 2.5;
      });
    case Values::counts:
      return makeBytes<std::int16_t>(count, [&](std::size_t i) { return converted(seed, i); });
    case Values::noise:
      break;
  }
  return makeBytes<double>(count, [&](std::size_t i) {
    return static_cast<double>(randomBits(seed, i) >> 11) * 0x1p-52 - 1;
  });
}

Data::Data(const Workload& workload) : time(makeTime(workload)) {
  signals.reserve(workload.signals);
  for (std::size_t i = 0; i < workload.signals; ++i) signals.push_back(makeSignal(workload, i));
  if (!workload.isLive()) return;
  steps.resize(workload.rows * workload.signals);
  for (std::size_t i = 0; i < workload.signals; ++i) {
    for (std::size_t row = 0; row < workload.rows; ++row) {
      std::memcpy(&steps[row * workload.signals + i], &signals[i][row * sizeof(double)],
                  sizeof(double));
    }
  }
}

}  // namespace kyr::compare
