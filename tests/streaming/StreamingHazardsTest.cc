#include <gmock/gmock.h>

#include <stdexcept>

#include "kyr/parquet/SignalPool.h"
#include "support/StreamTest.h"

namespace kyr::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;

// Surprising consequences of the rules of sharing. Hosts of this mode rely on them;
// StreamableSignal lists them.
class StreamingHazards : public StreamTest {
 protected:
  std::unique_ptr<Signal> stored(const Chunks& times) const {
    auto signal = makeStream();
    appendAll(*signal, Part::time, times);
    signal->finish();
    return signal;
  }
};

TEST_F(StreamingHazards, DoublesEqualToATimeChunkShareTheTimesFile) {
  const auto times = stored({upFrom(0, 3)});
  const auto signal = makeStream();
  append(*signal, Part::data, upFrom(0, 3));
  EXPECT_EQ(signal->getStorageId(Part::data), times->getStorageId(Part::time));
  signal->finish();
  EXPECT_EQ(store.names(), Names{"0"});
  EXPECT_EQ(rowsOf(*signal, Part::data), upFrom(0, 3));

  // Category and shape are not compared.
  const auto matrix = makeStream(FixedDim, Double);
  matrix->appendData(upFrom(0, 3).data(), 24, {{3}}, {});
  EXPECT_EQ(matrix->getStorageId(Part::data), times->getStorageId(Part::time));
  EXPECT_THAT([&] { matrix->appendData(upFrom(5, 3).data(), 24, {{3}}, {}); },
              ThrowsMessage<std::runtime_error>("Parquet schema mismatch."));
  signal->resetData();
  EXPECT_THROW(rowsOf(*times, Part::time), std::out_of_range);
}

TEST_F(StreamingHazards, SamplesOfOtherShapesAreHandedTheFirstOnes) {
  const auto first = makeStream(VarDim, Int8);
  const auto second = makeStream(VarDim, Int8);
  first->appendData("abcdef", 6, {{2, 2}, {2}}, {});
  first->finish();
  second->appendData("abcdef", 6, {{1}, {5}}, {});
  std::vector<char> bytes;
  Dims dims;
  second->getData(0, kAll, bytes, dims);
  EXPECT_EQ(dims, (Dims{{2, 2}, {2}}));
}

TEST_F(StreamingHazards, EmptySamplesAreNoRowsInAChunkWithoutBytes) {
  const auto signal = makeStream(Bus, Binary);
  signal->appendData("abc", 3, {}, {0, 3});
  signal->appendData("", 0, {}, {0, 0});
  EXPECT_EQ(signal->rowsBuffered(Part::data), 2);
}

TEST_F(StreamingHazards, FirstHeadIsTakenEvenWhereAnotherChainMatched) {
  const auto first = stored({{1}, {2}});
  const auto second = stored({{1}, {3}});  // its chain: 1, the 2 that differed, 3
  const auto third = stored({{1}, {2}, {3}});
  EXPECT_EQ(third->getStorageId(Part::time), first->getStorageId(Part::time));
  EXPECT_THAT(rowsOf(*third, Part::time), ElementsAre(1, 2));
  EXPECT_THAT(rowsOf(*second, Part::time), ElementsAre(1, 3));
  // The chain that is copied may be another one than the one that matched so far.
  const auto fourth = stored({{1}, {2}, {3}, {4}});
  EXPECT_THAT(rowsOf(*fourth, Part::time), ElementsAre(1, 4));
  EXPECT_THAT(chains().back(), HasSubstr("2:0-1 2:2-3 2:4-5 2:6-7"));
}

TEST_F(StreamingHazards, ChunkOfTheMarkersValueIsTakenForTheModelsEnd) {
  const auto model = stored({{1}});
  const auto longer = stored({{1}, {-1}});
  EXPECT_THAT(rowsOf(*longer, Part::time), ElementsAre(1));
}

TEST_F(StreamingHazards, EqualSignalsAppendedInTurnsLoseTheFirst) {
  const auto first = makeStream();
  const auto second = makeStream();
  for (const auto* signal : {&first, &second}) append(**signal, Part::time, {1});
  append(*first, Part::time, {2});
  EXPECT_THAT([&] { append(*second, Part::time, {2}); },
              ThrowsMessage<std::runtime_error>("File is still open for writing."));
  EXPECT_THAT([&] { first->finish(); }, ThrowsMessage<std::out_of_range>(HasSubstr("is lost")));
}

TEST_F(StreamingHazards, FinishOrDestructionOfASignalLosesTheOpenFileItShares) {
  const auto first = makeStream();
  append(*first, Part::time, {1});
  auto second = makeStream();
  append(*second, Part::time, {1});
  second.reset();
  EXPECT_THAT([&] { first->finish(); }, ThrowsMessage<std::out_of_range>(HasSubstr("is lost")));
}

TEST_F(StreamingHazards, DeletedChunksAreStillMatched) {
  auto signal = stored({{1}, {2}});
  signal->resetData();
  appendAll(*signal, Part::time, Chunks{{1}, {2}});
  signal->finish();
  EXPECT_TRUE(signal->hasData());
  EXPECT_EQ(signal->getStorageId(Part::time), 0);
  EXPECT_EQ(store.names(), Names{});
  EXPECT_THAT([&] { rowsOf(*signal, Part::time); },
              ThrowsMessage<std::out_of_range>("storage id 0 is not known"));

  // After the reset of a pool, the id may name the file of another signal.
  FeatureFlag::set("fKYRUseParquetRowGroup", true);
  parquet::SignalPool pool(temp.path().join("pool"));
  const auto put = [&pool](int id, double time) {
    const auto stream = pool.getStreamableSignal(id);
    stream->appendTime(&time, 1);
    stream->finish();
    std::vector<char> bytes;
    stream->getTime(0, kAll, bytes);
    return bytes;
  };
  put(1, 7);
  pool.reset();
  put(2, 8);
  EXPECT_EQ(put(1, 7), bytesOf<double>({8}));
}

}  // namespace
}  // namespace kyr::test
