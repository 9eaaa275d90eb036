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

class FailedStream : public StreamTest {};

TEST_F(FailedStream, RefusedChunkChangesNothing) {
  constexpr std::uint64_t kHuge = 1ULL << 32U;
  const Dims tooLarge{{kHuge, kHuge}, {3}};
  struct {
    std::string says;
    int category;
    int type;
    unsigned long size;
    Dims dims;
    std::vector<int> sizes;
  } const cases[] = {
      {"Null data type encountered.", Scalar, Null, 8, {}, {}},
      {"Unknown data type encountered.", Scalar, 9, 8, {}, {}},
      {"category or data type is unknown", 5, Int8, 8, {}, {}},
      {"of this data type and category cannot", FixedDim, ByteString, 8, {{2}}, {}},
      {"of this data type and category cannot", VarDim, ByteString, 8, {{8}}, {}},
      {"dimensions given for the samples of a scalar", Scalar, Int8, 8, {{8}}, {}},
      {"no dimensions given", FixedDim, Int8, 8, {}, {}},
      {"no dimensions given", VarDim, Int8, 8, {}, {8}},
      {"neither sizes nor dimensions", Bus, Binary, 8, {}, {}},
      {"2 samples with 1 dimension vectors", VarDim, Int16, 8, {{2}}, {}},
      {"2 samples with 1 dimension vectors", VarDimBus, Binary, 8, {{9}}, {4, 4}},
      {"0 samples with 2 dimension vectors", VarDim, Int16, 0, {{0}, {0}}, {}},
      {"need 5 elements, but the data holds 4", VarDim, Int16, 9, {{4}, {1}}, {}},
      {"need 9 elements, but the data holds 8", Bus, Binary, 8, {}, {8, 1}},
      {"more elements than can be counted", VarDim, Int8, 8, tooLarge, {}},
      {"a sample of -1 bytes", Bus, Binary, 8, {}, {9, -1}},
  };
  for (const auto& [says, category, type, size, dims, sizes] : cases) {
    const auto signal = makeStream(static_cast<KYRSignalCategory>(category),
                                   static_cast<KYRSignalDataType>(type), 1);
    const auto chunk = upFrom(1, 2);
    EXPECT_THAT(([&, bytes = size, &shapes = dims, &blobs = sizes] {
                  signal->appendData(chunk.data(), bytes, shapes, blobs);
                }),
                ThrowsMessage<std::exception>(HasSubstr(says)));
    EXPECT_FALSE(signal->hasData());
    signal->setCategory(Scalar);
    signal->setDataType(Double);
    EXPECT_EQ(signal->rowsBuffered(Part::data), 0);
  }
  EXPECT_EQ(checker->nextNumber, 0);
  EXPECT_THAT(chains(), IsEmpty());
  EXPECT_EQ(store.names(), Names{});
}

TEST_F(FailedStream, MissingPointersAreNamed) {
  const auto says = [](const char* text) { return ThrowsMessage<std::invalid_argument>(text); };
  const double one = 1;
  const auto signal = makeStream();
  EXPECT_THAT([&] { signal->appendTime(nullptr, 1); }, says("Time is empty"));
  for (const auto type : {Double, Null, KYRSignalDataType(9)}) {  // the type comes later
    signal->setDataType(type);
    EXPECT_THAT([&] { signal->appendData(nullptr, 8, {}, {}); }, says("Data is empty"));
  }
  EXPECT_THROW(Signal(nullptr, checker, registry, 1), std::invalid_argument);
  Signal uncounted(writer, nullptr, registry, 1);
  EXPECT_THAT([&] { uncounted.appendTime(&one, 1); }, says("Context is empty"));
  Signal unmatched(writer, checker, nullptr, 1);
  EXPECT_THAT([&] { unmatched.appendTime(&one, 1); }, says("Context is empty or invalid!"));
}

TEST_F(FailedStream, TypeAndCategoryStayWhileRowsAreAppended) {
  const auto signal = makeStream();
  append(*signal, Part::data, upFrom(0, 2));
  signal->setDataType(Int8);
  EXPECT_THAT([&] { append(*signal, Part::data, upFrom(2, 1)); },
              ThrowsMessage<std::invalid_argument>(HasSubstr("data type or category changed")));
  signal->setDataType(Double);
  signal->setCategory(FixedDim);
  EXPECT_THROW(signal->appendData("12345678", 8, {{1}}, {}), std::invalid_argument);
  signal->setCategory(Scalar);
  append(*signal, Part::data, upFrom(2, 1));
  signal->finish();
  EXPECT_THAT(rowsOf(*signal, Part::data), ElementsAre(0, 1, 2));
}

TEST_F(FailedStream, FileDeletedBehindTheWritersBackHurtsItsOwnPartOnly) {
  const auto signal = makeStream(2);
  append(*signal, Part::time, upFrom(0, 3));
  append(*signal, Part::data, upFrom(5, 3));
  fs::remove(store.file(1));
  append(*signal, Part::data, upFrom(8, 3));
  signal->finish();
  EXPECT_THAT(
      [&] { rowsOf(*signal, Part::data); },
      ThrowsMessage<::parquet::ParquetStatusException>(HasSubstr(store.file(1).string() + ": ")));
  EXPECT_EQ(rowsOf(*signal, Part::time), upFrom(0, 3));
  signal->resetData();
  EXPECT_EQ(store.names(), Names{});
}

TEST_F(FailedStream, FileThatCannotBeMadeHurtsTheAppendOnly) {
  const auto other = makeStream();
  append(*other, Part::time, upFrom(0, 3));
  const auto signal = makeStream();
  fs::create_directory(store.file(1));  // in the next file's place
  EXPECT_THAT([&] { append(*signal, Part::time, upFrom(5, 2)); },
              ThrowsMessage<::parquet::ParquetStatusException>(HasSubstr("Is a directory")));
  EXPECT_FALSE(signal->hasData());
  EXPECT_THAT(chains(), ElementsAre("0:0-3"));
  append(*signal, Part::time, upFrom(7, 2));
  signal->finish();
  EXPECT_EQ(rowsOf(*signal, Part::time), upFrom(7, 2));

  fs::rename(store.file(""), temp.file("moved"));
  EXPECT_THROW(append(*signal, Part::data, upFrom(5, 2)), ::parquet::ParquetStatusException);
  fs::rename(temp.file("moved"), store.file(""));
  append(*signal, Part::data, upFrom(5, 2));
  signal->finish();
  EXPECT_EQ(rowsOf(*signal, Part::data), upFrom(5, 2));
  other->finish();
  EXPECT_EQ(rowsOf(*other, Part::time), upFrom(0, 3));
}

TEST_F(FailedStream, FailedWritesAreSilentButTheSignalsStatusTells) {
  const auto signal = makeStream(2);
  const auto other = makeStream();
  signal->setParquetCompressionType(::arrow::Compression::LZ4_FRAME);
  other->setParquetCompressionType(::arrow::Compression::ZSTD);
  EXPECT_TRUE(signal->writeStatus().ok());
  append(*signal, Part::data, upFrom(0, 3));
  append(*other, Part::data, upFrom(5, 3));
  signal->finish();
  other->finish();
  EXPECT_EQ(signal->rowsWritten(Part::data), 3);  // counted all the same
  EXPECT_FALSE(signal->writeStatus().ok());
  EXPECT_TRUE(other->writeStatus().ok());
  EXPECT_EQ(metadataOf(store.file(1))->RowGroup(0)->ColumnChunk(0)->compression(),
            ::arrow::Compression::ZSTD);
  signal->resetData();
  EXPECT_TRUE(signal->writeStatus().ok());
}

}  // namespace
}  // namespace kyr::test
