#include "files/ColumnEncoding.h"

#include <arrow/api.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "files/ValueDictionary.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

using ::arrow::Compression;
using ::parquet::Encoding;

// Fewer values are too few to judge by, and their metadata take as much as they do.
constexpr std::size_t kFewestValues = 256;
constexpr std::size_t kSampled = 1024;
// An encoding must save a quarter of the plain bytes to be worth its time.
constexpr double kWorthwhile = 0.75;
// The share of the bytes that byte-stream split with a codec leaves of steady steps. Measured: 0.01
// to 0.05.
constexpr double kSteadyShare = 0.03;
constexpr double kNever = std::numeric_limits<double>::infinity();

struct Numbers {
  const std::uint8_t* bytes = nullptr;
  std::size_t count = 0;
  std::size_t width = 0;  // of a value in memory
  bool isFloating = false;

  std::uint64_t at(std::size_t i) const {
    switch (width) {
      case 8:
        return load<std::uint64_t>(i);
      case 4:
        return load<std::uint32_t>(i);
      case 2:
        return load<std::uint16_t>(i);
      default:
        return bytes[i];
    }
  }
  std::int64_t integerAt(std::size_t i) const {
    const auto shift = static_cast<unsigned>(64 - 8 * width);
    return static_cast<std::int64_t>(at(i) << shift) >> shift;
  }
  // Parquet stores small integers in four bytes.
  double plainBytes() const { return static_cast<double>(std::max<std::size_t>(width, 4)); }

 private:
  template <typename Bits>
  std::uint64_t load(std::size_t i) const {
    Bits bits;
    std::memcpy(&bits, bytes + i * sizeof(Bits), sizeof(Bits));
    return bits;
  }
};

Numbers numbersOf(const ::arrow::Array& array) {
  if (array.type_id() == ::arrow::Type::LIST) {
    return numbersOf(*spannedValues(static_cast<const ::arrow::ListArray&>(array)));
  }
  if (!isNumber(*array.type())) return {};
  Numbers numbers;
  numbers.bytes = firstValue(array);
  numbers.count = static_cast<std::size_t>(array.length());
  numbers.width = valueWidth(*array.type());
  numbers.isFloating = !::arrow::is_integer(array.type_id());
  return numbers;
}

double bitsFor(double distinct) { return distinct <= 1 ? 0 : std::ceil(std::log2(distinct)); }

// Calls \p visit with the beginning and the length of a few runs of neighbours.
template <typename Visit>
void forEachRun(const Numbers& numbers, Visit&& visit) {
  constexpr std::size_t kRuns = 4;
  const std::size_t length = std::min(kSampled / kRuns, numbers.count / kRuns);
  for (std::size_t run = 0; run < kRuns; ++run) {
    visit(run * (numbers.count - length) / (kRuns - 1), length);
  }
}

// The share of the values that differ from the value before.
double changes(const Numbers& numbers) {
  double changed = 0;
  double all = 0;
  forEachRun(numbers, [&](std::size_t from, std::size_t length) {
    for (std::size_t i = from + 1; i < from + length; ++i) {
      if (numbers.at(i) != numbers.at(i - 1)) ++changed;
    }
    all += static_cast<double>(length);
  });
  return changed / all;
}

// Bytes per value with a dictionary. The number of distinct values is estimated from the numbers of
// values that occur once and twice in the sample (Chao, "Nonparametric estimation of the number of
// classes in a population", Scandinavian Journal of Statistics 11, 1984).
double dictionaryBytes(const Numbers& numbers) {
  constexpr std::size_t kMost = kSampled / 4;  // fewer, because values that lie far apart are slow
  const std::size_t count = std::min(kMost, numbers.count);
  std::array<std::uint64_t, kMost> sample{};
  std::array<std::uint32_t, kMost> places{};
  std::array<std::uint32_t, kMost> counts{};
  for (std::size_t i = 0; i < count; ++i) sample[i] = numbers.at(i * numbers.count / count);
  ValueDictionary<std::uint64_t> dictionary(kMost);
  dictionary.add(sample.data(), count, places.data());
  for (std::size_t i = 0; i < count; ++i) ++counts[places[i]];
  const auto once = static_cast<double>(std::count(counts.begin(), counts.end(), 1U));
  const auto twice = static_cast<double>(std::count(counts.begin(), counts.end(), 2U));
  auto distinct = static_cast<double>(dictionary.values().size());
  if (distinct == static_cast<double>(count)) return kNever;
  distinct += once * (once - 1) / (2 * (twice + 1));
  const auto all = static_cast<double>(numbers.count);
  if (distinct > all / 2) return kNever;
  constexpr double kRepeatedRun = 4;  // bytes
  const double number = std::min(bitsFor(distinct) / 8, kRepeatedRun * changes(numbers));
  return numbers.plainBytes() * distinct / all + number;
}

// Bytes per value as differences of neighbours. Parquet stores them in blocks of 128, with a width
// of its own for every 32 (DELTA_BINARY_PACKED in its description of encodings).
double deltaBytes(const Numbers& numbers) {
  constexpr std::size_t kMiniBlock = 32;
  constexpr double kBlockOverhead = 8.0 / 128;
  double bits = 0;
  double miniBlocks = 0;
  forEachRun(numbers, [&](std::size_t from, std::size_t length) {
    std::vector<std::int64_t> deltas;
    for (std::size_t i = from + 1; i < from + length; ++i) {
      deltas.push_back(
          static_cast<std::int64_t>(static_cast<std::uint64_t>(numbers.integerAt(i)) -
                                    static_cast<std::uint64_t>(numbers.integerAt(i - 1))));
    }
    const std::int64_t least = *std::min_element(deltas.begin(), deltas.end());
    for (std::size_t at = 0; at + kMiniBlock <= deltas.size(); at += kMiniBlock) {
      const auto first = deltas.begin() + static_cast<std::ptrdiff_t>(at);
      const std::int64_t most = *std::max_element(first, first + kMiniBlock);
      const auto range =
          static_cast<double>(static_cast<std::uint64_t>(most) - static_cast<std::uint64_t>(least));
      bits += bitsFor(range + 1);
      ++miniBlocks;
    }
  });
  return bits / miniBlocks / 8 + kBlockOverhead;
}

// Whether nearly all neighbours differ by the same number of units in the last place, apart from
// rounding.
bool takesSteadySteps(const Numbers& numbers) {
  constexpr std::int64_t kRounding = 4;
  std::size_t steady = 0;
  std::size_t all = 0;
  forEachRun(numbers, [&](std::size_t from, std::size_t length) {
    for (std::size_t i = from + 2; i < from + length; ++i) {
      const std::uint64_t bend = numbers.at(i) - 2 * numbers.at(i - 1) + numbers.at(i - 2);
      const auto signedBend = static_cast<std::int64_t>(bend);
      if (signedBend >= -kRounding && signedBend <= kRounding) ++steady;
      ++all;
    }
  });
  return steady * 20 >= all * 19;
}

// n log2(n), for counts in a sample.
double timesLog(std::uint32_t n) {
  static const auto table = [] {
    std::array<double, kSampled + 1> products{};
    for (std::size_t i = 2; i < products.size(); ++i) {
      products[i] = static_cast<double>(i) * std::log2(static_cast<double>(i));
    }
    return products;
  }();
  return table[n];
}

// Bytes per value if the bytes of each place within the values are stored side by side and
// compressed by themselves.
double splitBytes(const Numbers& numbers, Compression::type codec) {
  if (takesSteadySteps(numbers)) return kSteadyShare * numbers.plainBytes();
  const bool codesBytes =
      codec == Compression::ZSTD || codec == Compression::GZIP || codec == Compression::BROTLI;
  if (!codesBytes) return kNever;  // other codecs only find repetitions
  double bits = 0;
  for (std::size_t place = 0; place < numbers.width; ++place) {
    std::array<std::uint32_t, 256> counts{};
    double all = 0;
    forEachRun(numbers, [&](std::size_t from, std::size_t length) {
      for (std::size_t i = from; i < from + length; ++i) {
        ++counts[numbers.bytes[i * numbers.width + place]];
      }
      all += static_cast<double>(length);
    });
    // The entropy -sum(p log p), rearranged so that only logarithms of counts are needed.
    double sum = 0;
    for (const std::uint32_t count : counts) sum += timesLog(count);
    bits += std::log2(all) - sum / all;
  }
  return bits / 8;
}

}  // namespace

ColumnEncoding chooseEncoding(const ::arrow::Array& values, const EncodingChoice& choice,
                              Compression::type codec, bool mayUseDictionary) {
  const Numbers numbers = numbersOf(values);
  const Compression::type packed = choice.codec ? Compression::ZSTD : codec;
  const ColumnEncoding plain{Encoding::PLAIN, choice.codec ? Compression::UNCOMPRESSED : codec};
  if (numbers.count < kFewestValues) return plain;

  ColumnEncoding best = plain;
  double least = kWorthwhile * numbers.plainBytes();
  const auto consider = [&](Encoding::type encoding, double bytes) {
    if (bytes >= least) return;
    least = bytes;
    best = {encoding, packed};
  };
  if (mayUseDictionary) consider(Encoding::RLE_DICTIONARY, dictionaryBytes(numbers));
  if (!numbers.isFloating) {
    consider(Encoding::DELTA_BINARY_PACKED, deltaBytes(numbers));
  } else if (packed != Compression::UNCOMPRESSED) {
    if (choice.byteStreamSplit) {
      consider(Encoding::BYTE_STREAM_SPLIT, splitBytes(numbers, packed));
    } else if (takesSteadySteps(numbers)) {
      consider(Encoding::PLAIN, 0.2 * numbers.plainBytes());
    }
  }
  return best;
}

}  // namespace kyr::parquet
