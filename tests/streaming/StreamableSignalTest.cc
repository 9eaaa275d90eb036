#include <arrow/util/compression.h>
#include <gmock/gmock.h>
#include <parquet/exception.h>

#include <stdexcept>

#include "support/StreamTest.h"

namespace kyr::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;

class StreamableSignal : public StreamTest {};

TEST_F(StreamableSignal, IsEmptyAtFirst) {
  const auto signal = makeStream();
  EXPECT_EQ(signal->getDataType(), Double);
  EXPECT_EQ(signal->getCategory(), Scalar);
  EXPECT_EQ(signal->getParquetCompressionType(), std::nullopt);
  EXPECT_EQ(signal->getStorageId(static_cast<Part>(2)), -1);
  signal->finish();  // does nothing: the signal can still be written
  signal->finish(static_cast<Part>(2));
  EXPECT_FALSE(signal->hasData());
  for (const Part part : kParts) {
    EXPECT_EQ(signal->getStorageId(part), kNone);
    EXPECT_THAT(rowsOf(*signal, part), IsEmpty());
    append(*signal, part, upFrom(static_cast<double>(part), 3));
    EXPECT_TRUE(signal->hasData());
    signal->finish(part);
    EXPECT_EQ(groupsOf(signal->getStorageId(part)), std::vector<std::int64_t>{3});
  }
}

TEST_F(StreamableSignal, WholeBatchesGoToDiskAndFinishWritesTheRestOnce) {
  const auto signal = makeStream(4096);
  for (const Part part : kParts) {
    append(*signal, part, upFrom(static_cast<double>(part), 10000));
    EXPECT_EQ(signal->rowsWritten(part), 8192);
    EXPECT_EQ(signal->rowsBuffered(part), 1808);
    for (int i = 0; i < 2; ++i) {
      signal->finish(part);
      EXPECT_EQ(signal->rowsWritten(part), 10000);
      EXPECT_EQ(signal->rowsBuffered(part), 0);
    }
    EXPECT_THAT(groupsOf(signal->getStorageId(part)), ElementsAre(4096, 4096, 1808));
    EXPECT_EQ(rowsOf(*signal, part, 4095, 4097), upFrom(static_cast<double>(part) + 4095, 2));
    EXPECT_THAT(rowsOf(*signal, part, 10001, 10005), IsEmpty());
  }
  EXPECT_THAT(chains(), ElementsAre("0:0-10000 0:10001-10002", "1:0-10000 1:10001-10002"));
}

TEST_F(StreamableSignal, BatchLengthCanChangeButIsNeverZero) {
  const auto signal = makeStream(100);
  append(*signal, Part::time, upFrom(0, 10));
  signal->setBufferSize(4);
  EXPECT_EQ(signal->rowsWritten(Part::time), 0);
  append(*signal, Part::time, upFrom(10, 1));
  EXPECT_EQ(signal->rowsWritten(Part::time), 8);
  EXPECT_THROW(signal->setBufferSize(0), std::invalid_argument);
  signal->setBufferSize(1);
  signal->finish();
  EXPECT_THAT(groupsOf(0), ElementsAre(4, 4, 1, 1, 1));
  EXPECT_THROW(makeStream(0), std::invalid_argument);
}

TEST_F(StreamableSignal, RowBoundsDriftByOneRowPerChunk) {
  const auto signal = makeStream();
  for (const Part part : kParts) {
    for (const std::size_t count : {100U, 50U, 0U, 25U}) {
      append(*signal, part, upFrom(static_cast<double>(part), count));
    }
  }
  signal->finish();
  EXPECT_EQ(rowsOf(*signal, Part::data).size(), 175U);
  EXPECT_THAT(chains(), ElementsAre("0:0-100 0:101-151 0:152-152 0:153-178 0:179-180",
                                    "1:0-100 1:101-151 1:152-152 1:153-178 1:179-180"));
}

TEST_F(StreamableSignal, EqualChunksShareOneFile) {
  for (const Part part : kParts) {
    const Chunks chunks{upFrom(static_cast<double>(part), 3), upFrom(7, 3)};
    const auto first = makeStream();
    appendAll(*first, part, chunks);
    first->finish();
    const auto second = makeStream();
    appendAll(*second, part, chunks);
    EXPECT_EQ(second->getStorageId(part), first->getStorageId(part));
    second->finish();
    EXPECT_EQ(second->getStorageId(part), first->getStorageId(part));
    EXPECT_EQ(second->rowsWritten(part), 0);
    EXPECT_EQ(rowsOf(*second, part), rowsOf(*first, part));
    EXPECT_EQ(chains().size(), part == Part::time ? 1U : 3U);

    const auto otherChunks = makeStream();  // of the same rows
    append(*otherChunks, part, upFrom(static_cast<double>(part), 2));
    EXPECT_NE(otherChunks->getStorageId(part), first->getStorageId(part));
  }
}

// The rows between the bounds of the chunks are copied. From the second chunk on these are later
// rows than those of the chunk. The node of the chunk that differed is copied, but not its rows.
TEST_F(StreamableSignal, DivergingSignalCopiesThePrefixByItsBounds) {
  for (const Part part : kParts) {
    const double base = 100 * static_cast<double>(part);
    const auto model = makeStream();
    appendAll(*model, part, Chunks{upFrom(base, 3), upFrom(base + 3, 3), upFrom(base + 6, 3)});
    model->finish();
    const auto signal = makeStream(4);
    appendAll(*signal, part, Chunks{upFrom(base, 3), upFrom(base + 3, 3)});
    EXPECT_EQ(signal->getStorageId(part), model->getStorageId(part));
    appendAll(*signal, part, Chunks{upFrom(50, 3), upFrom(53, 2), upFrom(55, 1)});
    EXPECT_EQ(signal->rowsWritten(part), 6 + 4);
    signal->finish();
    const int id = signal->getStorageId(part);
    EXPECT_EQ(id, model->getStorageId(part) + 1);
    EXPECT_THAT(rowsOf(*signal, part), ElementsAre(base, base + 1, base + 2, base + 4, base + 5,
                                                   base + 6, 50, 51, 52, 53, 54, 55));
    EXPECT_THAT(groupsOf(id), ElementsAre(3, 3, 4, 2));
    EXPECT_EQ(signal->rowsWritten(part), 12);
    // The first chunk behind the copy continues the copy's first node.
    const auto file = std::to_string(id) + ":";
    EXPECT_EQ(chains().back(), file + "0-3 " + file + "4-7 " + file + "8-11 " + file + "12-15 " +
                                   file + "4-6 " + file + "7-8 " + file + "9-10");
  }
}

TEST_F(StreamableSignal, EndMarkerOfDataCountsItsCopiedRowsAsTime) {
  const auto model = makeStream();
  for (const Part part : kParts) {
    const double base = 100 * static_cast<double>(part);
    appendAll(*model, part, Chunks{upFrom(base, 3), upFrom(base + 3, 3), upFrom(base + 6, 3)});
  }
  model->finish();
  for (const Part part : kParts) {
    const double base = 100 * static_cast<double>(part);
    const auto shorter = makeStream();
    appendAll(*shorter, part, Chunks{upFrom(base, 3), upFrom(base + 3, 3)});
    shorter->finish();
    EXPECT_EQ(shorter->rowsWritten(Part::time), 6);
    EXPECT_EQ(shorter->rowsWritten(Part::data), 0);
    EXPECT_THAT(rowsOf(*shorter, part),
                ElementsAre(base, base + 1, base + 2, base + 4, base + 5, base + 6));
    EXPECT_THAT(groupsOf(shorter->getStorageId(part)), ElementsAre(3, 3));
    const auto file = std::to_string(shorter->getStorageId(part)) + ":";
    EXPECT_EQ(chains().back(), file + "0-3 " + file + "4-7 " + file + "8-11 " + file + "12-13");
  }
}

TEST_F(StreamableSignal, EndMarkerIsAChunkOfThePartsType) {
  const auto doubles = makeStream();
  for (const Part part : kParts) append(*doubles, part, upFrom(static_cast<double>(part), 1));
  doubles->finish();
  EXPECT_EQ(checker->nextNumber, 3);  // two chunks and the marker of both parts
  const auto bytes = makeStream(Scalar, Int8);
  bytes->appendData("a", 1, {}, {});
  bytes->finish();
  EXPECT_EQ(checker->nextNumber, 5);
}

TEST_F(StreamableSignal, LongerSignalTakesTheModelsEndMarkerAlong) {
  const auto model = makeStream();
  append(*model, Part::time, upFrom(0, 3));
  model->finish();
  const auto longer = makeStream();
  appendAll(*longer, Part::time, Chunks{upFrom(0, 3), upFrom(3, 1)});
  longer->finish();
  EXPECT_THAT(rowsOf(*longer, Part::time), ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(chains(), ElementsAre("0:0-3 0:4-5", "1:0-3 1:4-5 1:6-7 1:4-5"));
}

TEST_F(StreamableSignal, CopyOfAChainWithoutEndMarkerStopsAtItsEnd) {
  const auto model = makeStream(1);
  append(*model, Part::time, upFrom(0, 3));
  writer->close(0);
  const auto longer = makeStream();
  appendAll(*longer, Part::time, Chunks{upFrom(0, 3), upFrom(3, 1)});
  EXPECT_THAT(chains(), ElementsAre("0:0-3", "1:0-3 1:4-5"));
  const auto equal = makeStream();  // ends where the chain does, but the chain has no end marker
  append(*equal, Part::time, upFrom(0, 3));
  equal->finish();
  EXPECT_THAT(rowsOf(*equal, Part::time), ElementsAre(0, 1, 2));
  EXPECT_EQ(chains().back(), "2:0-3 2:4-5");
}

TEST_F(StreamableSignal, ChunkOfNoRowsMakesAFileOfNoRowGroups) {
  const auto signal = makeStream();
  for (const Part part : kParts) {
    append(*signal, part, std::vector<double>());
    EXPECT_TRUE(signal->hasData());
    signal->finish(part);
    EXPECT_THAT(groupsOf(signal->getStorageId(part)), IsEmpty());
    EXPECT_THAT(rowsOf(*signal, part), IsEmpty());
    EXPECT_THAT(rowsOf(*signal, part, 1, 5), IsEmpty());
  }
  // an empty chunk of doubles equals an empty chunk of times
  EXPECT_EQ(signal->getStorageId(Part::data), 0);
}

TEST_F(StreamableSignal, RowsAfterFinishWaitUntilABatchIsDueAndThenFail) {
  const auto signal = makeStream(3);
  for (const Part part : kParts) {
    append(*signal, part, upFrom(static_cast<double>(part), 2));
    signal->finish(part);
    append(*signal, part, upFrom(10, 1));
    signal->finish(part);
    EXPECT_EQ(signal->rowsBuffered(part), 1);
    EXPECT_EQ(rowsOf(*signal, part), upFrom(static_cast<double>(part), 2));
    EXPECT_EQ(signal->rowsBuffered(part), 0);  // dropped by the read
    append(*signal, part, upFrom(20, 2));
    EXPECT_THAT([&] { append(*signal, part, upFrom(30, 1)); },
                ThrowsMessage<std::runtime_error>(HasSubstr("accepted in write()")));
    EXPECT_THAT([&] { rowsOf(*signal, part); },
                ThrowsMessage<std::out_of_range>(HasSubstr("is lost")));
  }
}

TEST_F(StreamableSignal, ReadingAnOpenPartLosesItAndNotTheOther) {
  const auto signal = makeStream();
  append(*signal, Part::time, upFrom(0, 2));
  append(*signal, Part::data, upFrom(5, 2));
  EXPECT_THAT([&] { rowsOf(*signal, Part::time); },
              ThrowsMessage<std::runtime_error>("File is still open for writing."));
  const auto lost = ThrowsMessage<std::out_of_range>(HasSubstr("storage id 0 is lost"));
  EXPECT_THAT([&] { rowsOf(*signal, Part::time); }, lost);
  EXPECT_THAT([&] { signal->finish(Part::time); }, lost);
  signal->finish(Part::data);
  EXPECT_EQ(rowsOf(*signal, Part::data), upFrom(5, 2));
  EXPECT_THAT([&] { signal->resetData(); }, lost);
  EXPECT_FALSE(signal->hasData());
  EXPECT_EQ(store.names(), Names{"0"});
}

TEST_F(StreamableSignal, IsAsGoodAsNewAfterAReset) {
  const auto signal = makeStream(2);
  double base = 0;
  for (const bool finished : {false, true}) {
    for (int i = 0; i < 2; ++i) {
      for (const Part part : kParts) append(*signal, part, upFrom(base += 10, 3));
    }
    if (finished) signal->finish();
    signal->resetData();
    EXPECT_FALSE(signal->hasData());
    EXPECT_EQ(store.names(), Names{});
    for (const Part part : kParts) {
      EXPECT_EQ(signal->getStorageId(part), kNone);
      EXPECT_EQ(signal->rowsWritten(part) + signal->rowsBuffered(part), 0);
      EXPECT_THAT(rowsOf(*signal, part), IsEmpty());
    }
  }
  signal->resetData();
  for (const Part part : kParts) appendAll(*signal, part, Chunks{upFrom(base += 10, 3), {1}});
  signal->finish();
  EXPECT_EQ(signal->rowsWritten(Part::data), 4);
  EXPECT_THAT(rowsOf(*signal, Part::data), ElementsAre(base, base + 1, base + 2, 1));
  EXPECT_THAT(chains().back(), HasSubstr(":0-3 "));
}

TEST_F(StreamableSignal, FilesGoWithTheFirstHolderAndTheOthersBearIt) {
  const auto chunksOf = [](Part part) {
    return Chunks{upFrom(100 * static_cast<double>(part), 3), upFrom(7, 3)};
  };
  auto owner = makeStream();
  for (const Part part : kParts) appendAll(*owner, part, chunksOf(part));
  owner->finish();
  auto equal = makeStream();
  auto reset = makeStream();
  auto shorter = makeStream();
  for (const auto* other : {&equal, &reset}) {
    for (const Part part : kParts) appendAll(**other, part, chunksOf(part));
  }
  append(*shorter, Part::time, chunksOf(Part::time)[0]);
  owner.reset();
  EXPECT_EQ(store.names(), Names{});
  equal->finish();
  EXPECT_TRUE(equal->hasData());
  EXPECT_THAT([&] { rowsOf(*equal, Part::time); },
              ThrowsMessage<std::out_of_range>("storage id 0 is not known"));
  equal.reset();
  reset->resetData();
  // It ends before the other one, so it needs the rows for a file of its own.
  EXPECT_THROW(shorter->resetData(), std::out_of_range);
  EXPECT_FALSE(shorter->hasData());
  shorter.reset();
  EXPECT_EQ(store.names(), Names{});
  EXPECT_TRUE(writer->isParquetDirectoryEmpty());
}

}  // namespace
}  // namespace kyr::test
