#include <arrow/status.h>
#include <arrow/util/compression.h>
#include <gmock/gmock.h>

#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <tuple>

#include "kyr/parquet/ParquetSignal.h"
#include "storage/ContentHash.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::bytesOf;
using test::Dims;
using test::kNone;
using test::Names;
using test::read;
using test::Samples;
using test::write;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr char kTime = 0;
constexpr char kData = 1;

using Kind = std::tuple<KYRSignalCategory, KYRSignalDataType, bool /*sharedTime*/>;

class SignalOfKind : public test::StorageTest, public ::testing::WithParamInterface<Kind> {
 protected:
  // Bit patterns where codecs and conversions go wrong: every bit, the sign alone (-0.0), the
  // largest integer, and NaNs with payloads.
  static std::vector<char> extremeElements(std::size_t width, std::size_t count) {
    constexpr char patterns[][3] = {// lowest byte, bytes between, highest byte
                                    {'\x00', '\x00', '\x00'}, {'\xff', '\xff', '\xff'},
                                    {'\x00', '\x00', '\x80'}, {'\xff', '\xff', '\x7f'},
                                    {'\x01', '\xf0', '\x7f'}, {'\x01', '\x00', '\x00'}};
    std::vector<char> bytes;
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t byte = 0; byte < width; ++byte) {
        const int part = byte + 1 == width ? 2 : byte == 0 ? 0 : 1;
        bytes.push_back(patterns[i % std::size(patterns)][part]);
      }
    }
    return bytes;
  }

  // Twelve elements in the shape of the category, with the lengths that a read answers.
  static Samples samplesOf(KYRSignalCategory category, KYRSignalDataType type) {
    const bool variable = category == VarDim || category == VarDimBus;
    const bool flat = category == Scalar && type != ByteString;
    Samples samples;
    samples.data = extremeElements(elementWidth(type), 12);
    if (!flat) samples.dims = variable ? Dims{{2, 3}, {4, 0}, {6}} : Dims{{2, 2}};
    if (!flat) samples.lengths = variable ? std::vector{6, 0, 6} : std::vector{4, 4, 4};
    if (type == Binary) samples.lengths = {5, 0, 7};
    samples.time.resize(samples.lengths.empty() ? 12 : 3, -0.0);
    samples.time.back() = std::numeric_limits<double>::quiet_NaN();
    return samples;
  }

  // Whether the category's column is what the type is stored as.
  static bool canHold(KYRSignalCategory category, KYRSignalDataType type) {
    if (type == Binary) return true;
    const bool bus = category == Bus || category == VarDimBus;
    return type == ByteString ? bus || category == Scalar : !bus;
  }
};

TEST_P(SignalOfKind, ComesBackBitByBitOrItsWriteStatusTells) {
  const auto [category, type, sharedTime] = GetParam();
  serialization_options::bSharedTimeColumn = sharedTime;
  const auto signal = makeSignal(category, type);
  Samples samples = samplesOf(category, type);
  write(*signal, samples);
  EXPECT_TRUE(signal->hasData());
  EXPECT_EQ(signal->getStorageId(kTime), sharedTime ? 0 : kNone);
  EXPECT_EQ(signal->getStorageId(kData), sharedTime ? 1 : 0);
  EXPECT_EQ(store.names(), sharedTime ? (Names{"0", "1"}) : Names{"0"});
  EXPECT_EQ(signal->writeStatus().ok(), canHold(category, type)) << signal->writeStatus();
  if (!canHold(category, type)) return;

  if (category != VarDim && category != VarDimBus) samples.dims = {{99}};  // not stored
  EXPECT_EQ(read(*signal, {{99}, {99}, {{99}}, {99}}), samples);
  const auto rebuilt =
      makeSignal(category, type, signal->getStorageId(kTime), signal->getStorageId(kData));
  EXPECT_EQ(read(*rebuilt, {{}, {}, {{99}}, {}}), samples);
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalOfKind,
    ::testing::Combine(::testing::Values(Scalar, FixedDim, VarDim, Bus, VarDimBus),
                       ::testing::Values(Double, Single, Int8, UInt8, Int16, UInt16, Int32, UInt32,
                                         Boolean, Int64, UInt64, UInt64Alt, UInt32Alt, ByteString,
                                         Binary),
                       ::testing::Bool()));

class SignalTest : public test::StorageTest {};

TEST_F(SignalTest, EqualPartsAreSharedUntilTheLastSignalLetsGo) {
  const auto a = makeSignal(Scalar, Int8);
  auto b = makeSignal(Scalar, Int8);
  write(*a, {{0, 1}, {1, 2}, {}, {}});
  write(*b, {{0, 1}, {3, 4}, {}, {}});
  EXPECT_EQ(store.names(), (Names{"0", "1", "2"}));
  b.reset();
  EXPECT_EQ(store.names(), (Names{"0", "1"}));
  a->resetData();
  EXPECT_FALSE(a->hasData());
  EXPECT_EQ(store.names(), Names{});
  write(*a, {{0, 1}, {5, 6}, {}, {}});
  EXPECT_EQ(read(*a), (Samples{{0, 1}, {5, 6}, {}, {}}));
}

// Content is told apart by a hash of the values and of the run of extents.
TEST_F(SignalTest, SharingDoesNotLookAtShapesNorAtTheSignOfZeroNorBeyondTheHash) {
  const auto matrix = makeSignal(FixedDim, Int8);
  const auto vectors = makeSignal(VarDim, Int8);
  write(*matrix, {{}, {1, 2, 3, 4}, {{2, 2}}, {}});
  write(*vectors, {{}, {1, 2, 3, 4}, {{2}, {2}}, {}});
  EXPECT_EQ(read(*vectors), (Samples{{}, {1, 2, 3, 4}, {}, {4}}));
  const auto positive = makeSignal(Scalar, Double);
  const auto negative = makeSignal(Scalar, Double);
  write(*positive, {{}, bytesOf<double>({0.0}), {}, {}});
  write(*negative, {{}, bytesOf<double>({-0.0}), {}, {}});
  EXPECT_EQ(read(*negative).data, bytesOf<double>({0.0}));

  // Short columns of small integers often have equal hashes.
  std::map<std::uint64_t, std::vector<char>> known;
  std::vector<char> first, second;
  for (char a = 0; a < 100 && first.empty(); ++a) {
    for (char b = 0; b < 100 && first.empty(); ++b) {
      second = {a, b};
      const auto [found, isNew] = known.emplace(contentHash<char>(second.data(), 2, {}), second);
      if (!isNew) first = found->second;
    }
  }
  ASSERT_NE(first, second);
  const auto one = makeSignal(Scalar, Int8);
  const auto other = makeSignal(Scalar, Int8);
  write(*one, {{}, first, {}, {}});
  write(*other, {{}, second, {}, {}});
  EXPECT_EQ(read(*other).data, first);
}

TEST_F(SignalTest, SecondWriteIsRefusedAndLeavesItsFilesBehind) {
  const auto a = makeSignal(Scalar, Int8);
  write(*a, {{0}, {1}, {}, {}});
  const auto refusal = [](const std::string& part) {
    return ThrowsMessage<std::runtime_error>("Signal already has a " + part +
                                             " storage associated.");
  };
  EXPECT_THAT([&] { write(*a, {{5}, {2}, {}, {}}); }, refusal("time"));
  EXPECT_THAT([&] { write(*a, {{0}, {3}, {}, {}}); }, refusal("data"));
  EXPECT_THAT([&] { write(*a, {{0}, {}, {}, {}}); }, refusal("data"));
  EXPECT_EQ(store.names(), (Names{"0", "1", "2", "3", "4"}));
  write(*a, {{0}, {1}, {}, {}});  // the very content that it has
  EXPECT_EQ(read(*a), (Samples{{0}, {1}, {}, {}}));
}

TEST_F(SignalTest, RefusedWriteLeavesNoFile) {
  struct {
    const char* says;
    int category;
    int type;
    Dims dims;
    std::vector<int> lengths;
  } const cases[] = {
      {"Null data type encountered.", Scalar, Null, {}, {}},
      {"Unknown data type encountered.", Scalar, 9, {}, {}},
      {"category 5 is unknown", 5, Int8, {}, {}},
      {"need 6 elements, but the data holds 4", VarDim, Int8, {{2, 2}, {2}}, {}},
      {"need 5 elements, but the data holds 4", Bus, Binary, {}, {5}},
      {"offset 1 of the samples is -1", Bus, Binary, {}, {-1, 2}},
      {"no offsets", Bus, Binary, {}, {}},
      {"no offsets", Scalar, ByteString, {}, {4}},  // lengths count for Binary only
  };
  for (const auto& [says, category, type, dims, lengths] : cases) {
    const auto a =
        makeSignal(static_cast<KYRSignalCategory>(category), static_cast<KYRSignalDataType>(type));
    const Samples samples{{0}, {1, 2, 3, 4}, dims, lengths};
    EXPECT_THAT([&] { write(*a, samples); }, ThrowsMessage<std::exception>(HasSubstr(says)));
    write(*a, {{0}, {}, dims, lengths});  // without data there is nothing to refuse
    EXPECT_FALSE(a->hasData());
  }
  EXPECT_EQ(store.names(), Names{});
}

TEST_F(SignalTest, FailedWriteIsSilentButItsStatusNamesTheFile) {
  struct {
    const char* name;
    bool sharedTime;
    KYRSignalCategory category;
    ::arrow::Compression::type codec;
    Dims dims;
  } const cases[] = {
      {"one sample of variable dimensions", true, VarDim, {}, {{2}}},
      {"shapes for a scalar", true, Scalar, {}, {{2}}},
      {"times fewer than samples", false, Scalar, {}, {}},
      {"refused codec", true, FixedDim, ::arrow::Compression::LZO, {{2}}},
  };
  for (const auto& [name, sharedTime, category, codec, dims] : cases) {
    SCOPED_TRACE(name);
    serialization_options::bSharedTimeColumn = sharedTime;
    const auto a = makeSignal(category, Int8);
    a->setParquetCompressionType(codec);
    write(*a, {{0.5}, {1, 2}, dims, {}});
    EXPECT_TRUE(a->hasData());
    const int failed = a->getStorageId(codec ? kTime : kData);  // the first that did
    EXPECT_THAT(a->writeStatus().ToString(), HasSubstr(store.file(failed).string()));
    EXPECT_EQ(read(*a).data, std::vector<char>{});
  }
}

TEST_F(SignalTest, PartialElementsAndSamplesAreDropped) {
  struct {
    KYRSignalDataType type;
    Dims dims;
    Samples stored;
  } const cases[] = {
      {Int16, {}, {{}, {1, 2}, {}, {}}},
      {Int8, {{2}}, {{}, {1, 2}, {}, {2}}},
      {Int8, {{0, 7}}, {{}, {}, {}, {}}},
  };
  for (const auto& [type, dims, stored] : cases) {
    const auto a = makeSignal(dims.empty() ? Scalar : FixedDim, type);
    write(*a, {{}, {1, 2, 3}, dims, {}});
    EXPECT_TRUE(a->writeStatus().ok());
    EXPECT_EQ(read(*a), stored);
  }
}

TEST_F(SignalTest, SignalOverUnknownFilesKeepsItsIdsButHasNothing) {
  const auto owner = makeSignal(Scalar, Int8);
  write(*owner, {{0}, {1}, {}, {}});
  const std::pair<int, int> cases[] = {{0, 77}, {77, 1}, {77, kNone}};
  for (const auto& [timeId, dataId] : cases) {
    const auto detached = makeSignal(Scalar, Int8, timeId, dataId);
    EXPECT_FALSE(detached->hasData());
    detached->resetData();
    EXPECT_EQ(detached->getStorageId(kTime), timeId);
    EXPECT_EQ(detached->getStorageId(kData), dataId);
    EXPECT_EQ(detached->getStorageId(2), kNone);
  }
  EXPECT_EQ(read(*owner), (Samples{{0}, {1}, {}, {}}));

  // Its first write takes the time part over and then finds the data part taken.
  const auto detached = makeSignal(Scalar, Int8, 77, 78);
  const Samples samples{{0}, {1}, {}, {}};
  EXPECT_THAT([&] { write(*detached, samples); },
              ThrowsMessage<std::runtime_error>("Signal already has a data storage associated."));
  EXPECT_TRUE(detached->hasData());
  EXPECT_EQ(detached->getStorageId(kTime), 0);
  EXPECT_EQ(detached->getStorageId(kData), 78);
}

TEST_F(SignalTest, LayoutIsThatOfTheOptionWhenTheSignalWasMade) {
  const auto shared = makeSignal(Scalar, Double);
  serialization_options::bSharedTimeColumn = false;
  const auto single = makeSignal(Scalar, Double);
  const Samples samples{{0.5}, bytesOf<double>({1.5}), {}, {}};
  write(*shared, samples);
  write(*single, samples);
  EXPECT_EQ(read(*shared), samples);
  serialization_options::bSharedTimeColumn = true;
  EXPECT_EQ(read(*single), samples);
  // Opened in the other layout: a column's presence goes by its name, the column itself by its
  // position, so the times pass for the data.
  const auto other = makeSignal(Scalar, Double, kNone, single->getStorageId(kData));
  EXPECT_EQ(read(*other), (Samples{{}, bytesOf<double>({0.5}), {}, {}}));
}

}  // namespace
}  // namespace kyr::parquet
