#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>

#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::column;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

// Reads file 0 after it was damaged.
class DamagedFile : public test::StorageTest {
 protected:
  // The bytes of a healthy file with all three columns.
  std::string healthy() const {
    serialization_options::bSharedTimeColumn = false;
    const auto signal = makeSignal(VarDim, Int16);
    test::write(*signal, {{0.5, 1, 2}, test::bytesOf<short>({1, 2, 3, 4}), {{2}, {1}, {1}}, {}});
    EXPECT_TRUE(signal->writeStatus().ok());
    return store.contents("0");
  }

  template <typename T>
  void readTyped() {
    worker->readBytes<T>(0, time, bytes, offsets, dims);
  }

  auto namesTheFile(const std::string& says = "") const {
    return ThrowsMessage<std::runtime_error>(
        AllOf(StartsWith(store.file(0).string()), HasSubstr(says)));
  }

  std::vector<double> time;
  std::vector<char> bytes;
  std::vector<int> offsets;
  test::Dims dims;
};

TEST_F(DamagedFile, IsNamedByEveryReader) {
  std::vector<short> values;
  const std::function<void()> readers[] = {
      [&] { worker->readBinaryArray<short>(0, values, offsets, dims); },
      [&] { worker->readBinaryArray<short>(0, time, values, offsets, dims); },
      [&] { worker->readBytes<short>(0, bytes, offsets, dims); },
      [&] { worker->readBytes<short>(0, time, bytes, offsets, dims); },
      [&] { worker->readBinaryArray(0, bytes, offsets, dims); },
      [&] { worker->readBinaryArray(0, time, bytes, offsets, dims); },
  };
  std::string longFooter = healthy();
  longFooter.replace(longFooter.size() - 8, 4, "\xff\xff\xff\x7f");
  const std::string garbage(1000, '\x5a');
  for (const auto& contents : {garbage, "PAR1" + garbage + "PAR1", longFooter}) {
    store.touch("0", contents);
    for (const auto& reader : readers) EXPECT_THAT(reader, namesTheFile());
    EXPECT_EQ(worker->read(0), nullptr);
  }
}

TEST_F(DamagedFile, CutAnywhereIsNamed) {
  const std::string whole = healthy();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    store.touch("0", whole.substr(0, size));
    EXPECT_THAT([&] { readTyped<short>(); }, namesTheFile()) << size << " of " << whole.size();
  }
}

TEST_F(DamagedFile, ChangedByteIsNamedOrHarmless) {
  const std::string whole = healthy();
  int named = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char flip : {'\x01', '\x80', '\xff'}) {
      std::string changed = whole;
      changed[at] = static_cast<char>(changed[at] ^ flip);
      store.touch("0", changed);
      try {
        readTyped<short>();
      } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), StartsWith(store.file(0).string()));
        ++named;
      }
    }
  }
  EXPECT_GT(named, 100);
}

TEST_F(DamagedFile, ForeignColumnsAreNamedWithWhatWasExpected) {
  using namespace ::arrow;  // NOLINT: names of column types
  const auto ints = column(int32(), {"[1]"});
  const auto reals = column(float64(), {"[1]"});
  const auto nulls = column(float64(), {"[1, null]"});
  const auto extents = column(list(uint64()), {"[[1]]"});
  struct {
    const char* says;
    test::Columns columns;
  } const cases[] = {
      {"column \"data\" is int32, expected double or list of double", {{"data", ints}}},
      {"\"data\" is list<element: uint64>", {{"data", extents}}},
      {"\"data\" is large_list", {{"data", column(large_list(float64()), {"[[1]]"})}}},
      {"\"data\" holds 1 nulls", {{"data", nulls}}},
      {"\"data\" holds 1 nulls", {{"data", column(list(float64()), {"[[1], null]"})}}},
      {"\"data\" holds null elements", {{"data", column(list(float64()), {"[[1, null]]"})}}},
      {"no column \"data\"", {{"values", reals}}},
      {"\"time\" is int32, expected double", {{"time", ints}, {"data", reals}}},
      {"\"time\" holds 1 nulls", {{"time", nulls}, {"data", nulls}}},
      {"\"dimension\" is int32, expected list of uint64", {{"data", reals}, {"dimension", ints}}},
      {"\"dimension\" is list<element: int64>",
       {{"data", reals}, {"dimension", column(list(int64()), {"[[1]]"})}}},
      {"\"dimension\" holds null elements",
       {{"data", reals}, {"dimension", column(list(uint64()), {"[[null]]"})}}},
      // Columns are taken by their position.
      {"\"data\" is list<element: uint64>", {{"dimension", extents}, {"data", reals}}},
      {"\"time\" is int32", {{"x", ints}, {"time", reals}, {"data", reals}}},
      {"\"dimension\" is int32", {{"data", reals}, {"x", ints}, {"dimension", extents}}},
  };
  for (const auto& [says, columns] : cases) {
    test::writeForeignFile(store.file(0), *test::tableOf(columns));
    EXPECT_THAT([&] { readTyped<double>(); }, namesTheFile(says));
  }
}

// The byte readers read the columns that exist and leave their other outputs unchanged.
TEST_F(DamagedFile, ByteReadersNeedNoDataColumn) {
  bytes = {'x'};
  const auto reals = column(::arrow::float64(), {"[1]"});
  const auto readBlobs = [&] { worker->readBinaryArray(0, time, bytes, offsets, dims); };
  test::writeForeignFile(store.file(0), *test::tableOf({{"time", reals}}));
  readBlobs();
  EXPECT_EQ(time, std::vector<double>{1});
  EXPECT_EQ(bytes, std::vector<char>{'x'});
  test::writeForeignFile(store.file(0), *test::tableOf({{"dimension", reals}}));
  EXPECT_THAT(readBlobs, namesTheFile("no column at position 1"));
  test::writeForeignFile(store.file(0), *test::tableOf({{"time", reals}, {"data", reals}}));
  EXPECT_THAT(readBlobs, namesTheFile("\"data\" is double, expected binary"));
}

}  // namespace
}  // namespace kyr::parquet
