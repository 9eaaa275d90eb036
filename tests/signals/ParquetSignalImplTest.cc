#include <arrow/status.h>
#include <gmock/gmock.h>

#include <limits>
#include <stdexcept>

#include "signals/ParquetSignalImpl.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::bytesOf;
using test::Dims;
using ::testing::ThrowsMessage;
using Bytes = std::vector<char>;
using Impl = ParquetSignalImpl;
using Ints = std::vector<int>;

constexpr int kWrapped = std::numeric_limits<int>::min();

TEST(SampleOffsets, OfShapesAreTheirProductsAndOneShapeIsThatOfAll) {
  struct {
    std::size_t count;
    Dims dims;
    Ints offsets;
    Dims expanded;
  } const cases[] = {
      {12, {}, {}, {}},
      {13, {{2, 3}}, {0, 6, 12}, {{2, 3}, {2, 3}}},
      {5, {{2, 3}}, {0}, {}},
      {2, {{}}, {0, 1, 2}, {{}, {}}},
      {12, {{3, 0}}, {0}, {}},
      {0, {{2, 3}, {}, {0}, {4}}, {0, 6, 7, 7, 11}, {{2, 3}, {}, {0}, {4}}},
      {0,
       {{0x80000000}, {0x100000005}},
       {0, kWrapped, kWrapped + 5},
       {{0x80000000}, {0x100000005}}},
  };
  for (const auto& [count, dims, offsets, expanded] : cases) {
    EXPECT_EQ(Impl::buildOffsetArray(count, dims), offsets);
    EXPECT_EQ(Impl::expandDimensionArray(count, dims), expanded);
  }
  EXPECT_EQ(Impl::buildOffsetArray(99, Ints{}), Ints{});
  EXPECT_EQ(Impl::buildOffsetArray(0, Ints{2147483647, 1}), (Ints{0, 2147483647, kWrapped}));
}

class SignalImpl : public test::StorageTest {
 protected:
  SignalImpl() {
    signal.setCategory(FixedDim);
    signal.setDataType(Int16);
  }

  Impl signal{worker, test::kNone, test::kNone};
};

TEST_F(SignalImpl, PartsAreWrittenAndReadOnTheirOwn) {
  const Bytes time = bytesOf<double>({0.5, 1});
  const Bytes data = bytesOf<short>({1, 2, 3, 4});
  // Data needs the schema of an earlier write of the whole signal; one without samples will do.
  EXPECT_THROW(signal.setData(data, SignalPart::data, {{2}}, {}), std::invalid_argument);
  signal.setData(std::vector<double>{}, {}, {}, {});
  signal.setData(Bytes{}, SignalPart::time, {}, {});
  EXPECT_FALSE(signal.hasData());

  signal.setData(time, SignalPart::time, {{2}}, {});
  signal.setData(data, SignalPart::data, {{2}}, {});
  EXPECT_TRUE(signal.writeStatus().ok()) << signal.writeStatus();
  test::Samples all;
  signal.getData(all.time, all.data, all.dims, all.lengths);
  EXPECT_EQ(all, (test::Samples{{0.5, 1}, data, {}, {2, 2}}));
  Bytes bytes;
  signal.getData(bytes, SignalPart::time);
  EXPECT_EQ(bytes, time);
  signal.getData(bytes, SignalPart::data);
  signal.getData(bytes, static_cast<SignalPart>(2));  // reads nothing
  EXPECT_EQ(bytes, data);
  EXPECT_THROW(signal.setData(data, SignalPart::time, {}, {}), std::runtime_error);
  EXPECT_THROW(signal.setData(Bytes{}, SignalPart::data, {}, {}), std::runtime_error);
}

TEST_F(SignalImpl, MarkedAsEmptyItLeavesItsFiles) {
  signal.setData(bytesOf<double>({0.5}), SignalPart::time, {}, {});
  signal.markAsEmptySignal();
  signal.resetData();
  EXPECT_FALSE(signal.hasData());
  EXPECT_EQ(signal.getStorageId(SignalPart::time), test::kNone);
  EXPECT_EQ(store.names(), test::Names{"0"});
}

// The test is the wrong way round, and meant: "not valid" says that the signal is built.
TEST_F(SignalImpl, AskingWhetherItsIdsExistAlwaysThrows) {
  EXPECT_TRUE(signal.validateParquetStorageRecord());
  EXPECT_THAT([&] { signal.checkAllStorageIdsExist(); },
              ThrowsMessage<std::runtime_error>("Parquet storage record is not valid!"));
}

}  // namespace
}  // namespace kyr::parquet
