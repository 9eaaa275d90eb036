#include <gmock/gmock.h>

#include <filesystem>
#include <optional>
#include <stdexcept>

#include "kyr/parquet/SerializationOptions.h"
#include "support/StreamTest.h"

namespace kyr::test {
namespace {

// Reads files whose pages can be read without Arrow.
class PlainStream : public StreamTest {
 protected:
  PlainStream() {
    parquet::serialization_options::bDictionary = false;
    writer = std::make_shared<parquet::StreamableWriter>(store.path());
  }

  // A signal over a file of the given row groups, whose rows count up from 0.
  std::unique_ptr<Signal> signalOver(const std::vector<int>& groups) const {
    const int id = writer->create(*countingTable(0)->schema(), std::nullopt);
    double first = 0;
    for (const int rows : groups) {
      writer->write(id, *countingTable(rows, first));
      first += rows;
    }
    writer->close(id);
    return std::make_unique<Signal>(writer, kNone, id, checker, registry, 100);
  }

  static std::size_t descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }
};

// The rules for unequal row groups give the same rows with and without Arrow.
TEST_F(PlainStream, RangesHoldTheRowsOfTheTablesThatTheWriterReads) {
  for (const auto& groups : std::vector<std::vector<int>>{
           {}, {4}, {3, 3, 3, 1}, {1, 5, 2}, {5, 1, 1, 4}, {2, 0, 3}, {0, 2}}) {
    const auto signal = signalOver(groups);
    const int id = signal->getStorageId(Part::data);
    for (unsigned long from = 0; from < 14; ++from) {
      for (const unsigned long length : {0UL, 1UL, 2UL, 3UL, 7UL, 100UL, kAll - from}) {
        const unsigned long to = from + length;
        std::optional<std::vector<double>> expected;
        try {
          const auto table = writer->read(id, from, to);
          expected = table ? numbersOf(*table) : std::vector<double>();
        } catch (const std::range_error&) {
          EXPECT_THROW(rowsOf(*signal, Part::data, from, to), std::range_error)
              << groups.size() << " groups, rows " << from << " to " << to;
          continue;
        }
        EXPECT_EQ(rowsOf(*signal, Part::data, from, to), *expected)
            << groups.size() << " groups, rows " << from << " to " << to;
      }
    }
  }
}

TEST_F(PlainStream, ManyFilesThatAreReadTakeFewDescriptors) {
  constexpr int kFiles = 600;
  std::vector<std::unique_ptr<Signal>> signals;
  signals.reserve(kFiles);
  for (int i = 0; i < kFiles; ++i) signals.push_back(signalOver({2, 2, 1}));
  const std::size_t before = descriptors();
  for (int round = 0; round < 2; ++round) {
    for (const auto& signal : signals) {
      ASSERT_EQ(rowsOf(*signal, Part::data, 1, 5), upFrom(1, 4));
    }
  }
  EXPECT_LT(descriptors(), before + kFiles / 2);
}

}  // namespace
}  // namespace kyr::test
