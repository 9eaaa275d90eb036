#pragma once

#include <algorithm>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "streaming/StreamableSignalImpl.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::test {

constexpr unsigned long kAll = std::numeric_limits<unsigned long>::max();

/// \p count numbers that count up.
inline std::vector<double> upFrom(double first, std::size_t count) {
  std::vector<double> result(count);
  std::iota(result.begin(), result.end(), first);
  return result;
}

/// Streamable signals over one directory, with the objects that the signals of a pool share.
class StreamTest : public StorageTest {
 protected:
  using Signal = parquet::StreamableSignalImpl;
  using Part = parquet::StreamableSignal::SignalPart;
  using Chunks = std::vector<std::vector<double>>;
  static constexpr Part kParts[] = {Part::time, Part::data};

  std::unique_ptr<Signal> makeStream(unsigned long batchRows = 100) const {
    return std::make_unique<Signal>(writer, checker, registry, batchRows);
  }
  std::unique_ptr<Signal> makeStream(KYRSignalCategory category, KYRSignalDataType type,
                                     unsigned long batchRows = 100) const {
    auto signal = makeStream(batchRows);
    signal->setCategory(category);
    signal->setDataType(type);
    return signal;
  }

  /// Appends doubles to a part, in one chunk.
  static void append(Signal& signal, Part part, const std::vector<double>& values) {
    const double nothing = 0;
    const double* const first = values.empty() ? &nothing : values.data();
    if (part == Part::time) {
      signal.appendTime(first, values.size());
    } else {
      signal.appendData(first, values.size() * sizeof(double), {}, {});
    }
  }
  static void appendAll(Signal& signal, Part part, const Chunks& chunks) {
    for (const auto& chunk : chunks) append(signal, part, chunk);
  }

  static std::vector<double> rowsOf(Signal& signal, Part part, unsigned long from = 0,
                                    unsigned long to = kAll) {
    std::vector<char> bytes(sizeof(double), '?');
    Dims dims;
    if (part == Part::time) {
      signal.getTime(from, to, bytes);
    } else {
      signal.getData(from, to, bytes, dims);
    }
    std::vector<double> values(bytes.size() / sizeof(double));
    if (!values.empty()) std::memcpy(values.data(), bytes.data(), values.size() * sizeof(double));
    return values;
  }

  /// The files and the row bounds of the chunks of each chain, sorted: "0:0-3 0:4-7".
  std::vector<std::string> chains() const {
    std::vector<std::string> result;
    for (const auto& [key, heads] : *registry) {
      for (const auto& head : heads) {
        std::string text;
        for (const auto* node = head.get(); node; node = node->next.get()) {
          text += (text.empty() ? "" : " ") + std::to_string(node->storageId) + ":" +
                  std::to_string(node->first) + "-" + std::to_string(node->second);
        }
        result.push_back(text);
      }
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  std::vector<std::int64_t> groupsOf(int id) const { return rowGroupsOf(store.file(id)); }

  std::shared_ptr<parquet::StreamableWriter> writer =
      std::make_shared<parquet::StreamableWriter>(store.path());
  const std::shared_ptr<Signal::Checker> checker = std::make_shared<Signal::Checker>();
  const std::shared_ptr<Signal::Chains> registry = std::make_shared<Signal::Chains>();
};

}  // namespace kyr::test
