#include <arrow/util/compression.h>
#include <gmock/gmock.h>
#include <parquet/exception.h>

#include <functional>
#include <limits>
#include <stdexcept>

#include "kyr/parquet/StreamableWriter.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::countingTable;
using test::Names;
using test::numbersOf;
using test::rowGroupsOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;
using Codec = ::arrow::Compression;

constexpr unsigned long kAll = std::numeric_limits<unsigned long>::max();

class StreamableWriterTest : public test::StorageTest {
 protected:
  // A closed file of \p rows rows that count up.
  int closedFile(int rows) {
    const int id = openFile(rows);
    writer->close(id);
    return id;
  }
  int openFile(int rows) {
    const int id = writer->create(*schema, std::nullopt);
    writer->write(id, *countingTable(rows));
    return id;
  }
  std::vector<double> read(int id, unsigned long from = 0, unsigned long to = kAll) const {
    return numbersOf(*writer->read(id, from, to));
  }
  void putFile(const std::string& name, const std::vector<int>& groups = {2}) const {
    test::writeRowGroups(::arrow::io::FileOutputStream::Open(store.file(name)).ValueOrDie(),
                         groups);
  }
  Codec::type codecOf(int id) const {
    return test::metadataOf(store.file(id))->RowGroup(0)->ColumnChunk(0)->compression();
  }

  const std::shared_ptr<::arrow::Schema> schema = countingTable(0)->schema();
  std::unique_ptr<StreamableWriter> writer = std::make_unique<StreamableWriter>(store.path());
};

TEST_F(StreamableWriterTest, FilesAreNumberedFromZeroAndGrowARowGroupPerWrite) {
  EXPECT_TRUE(writer->isParquetDirectoryEmpty());
  EXPECT_EQ(writer->parquetDirectory(), store.path());
  EXPECT_EQ(writer->create(*schema, std::nullopt), 0);
  EXPECT_EQ(writer->create("speed.dat", *schema, std::nullopt), 1);
  EXPECT_EQ(store.names(), (Names{"0", "speed.dat"}));
  EXPECT_EQ(writer->getFileName(1), "speed.dat");
  EXPECT_THAT(writer->getAllParquetStorageIDs(), UnorderedElementsAre(0, 1));
  writer->write(0, *countingTable(3));
  writer->write(0, *countingTable(2, 3));
  writer->write(1, *countingTable(1'048'577));  // beyond the longest row group
  writer->close(0);
  writer->close(0);
  writer->close(1);
  EXPECT_THAT(rowGroupsOf(store.file("0")), ElementsAre(3, 2));
  EXPECT_THAT(rowGroupsOf(store.file("speed.dat")), ElementsAre(1'048'576, 1));
  EXPECT_THAT(read(0), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_THAT(read(1, 1'048'575, 2'000'000), ElementsAre(1'048'575, 1'048'576));
  EXPECT_THAT(read(0, 5, 5), ElementsAre());
  EXPECT_EQ(writer->read(0, 6, 9), nullptr);
}

TEST_F(StreamableWriterTest, CodecIsTheFilesOwnOrThatOfWhenTheWriterWasMade) {
  serialization_options::compressionMethod = Codec::GZIP;
  EXPECT_EQ(codecOf(closedFile(1)), Codec::UNCOMPRESSED);
  StreamableWriter other(temp.path());
  serialization_options::compressionMethod = Codec::ZSTD;
  EXPECT_EQ(other.create("store/1", *schema, std::nullopt), 0);
  EXPECT_EQ(other.create("store/2", *schema, Codec::SNAPPY), 1);
  for (const int id : {0, 1}) {
    other.write(id, *countingTable(1));
    other.close(id);
  }
  EXPECT_EQ(codecOf(1), Codec::GZIP);
  EXPECT_EQ(codecOf(2), Codec::SNAPPY);
}

TEST_F(StreamableWriterTest, AdoptsFilesByTheirLeadingNumberAndNumbersTheOthersAfterIt) {
  constexpr int kLowest = std::numeric_limits<int>::min() + 1;
  struct {
    Names files;
    std::vector<int> ids;
    int next;
  } const cases[] = {
      {{}, {}, 0},
      {{"3", "10.parquet", "notes"}, {3, 10, 11}, 12},
      {{"abc"}, {kLowest}, 0},
      {{"99999999999", "x"}, {kLowest, kLowest + 1}, 0},
      {{"-5", "abc"}, {-5, -4}, 0},
      {{"12", "12abc"}, {12}, 13},
      {{" 4", "+8", "0x9"}, {4, 8, 0}, 9},
  };
  for (const auto& [files, ids, next] : cases) {
    SCOPED_TRACE(::testing::PrintToString(files));
    const test::Folder folder(temp.file("adopted"));
    folder.touch("7", "some text");
    for (const auto& name : files) {
      putFile("../adopted/" + name);
    }
    {
      StreamableWriter adopting(folder.path());
      EXPECT_EQ(adopting.isParquetDirectoryEmpty(), files.empty());
      EXPECT_THAT(adopting.getAllParquetStorageIDs(), UnorderedElementsAreArray(ids));
      for (const int id : ids) {
        adopting.close(id);
        EXPECT_EQ(numbersOf(*adopting.read(id, 1, 9)), std::vector<double>{1});
      }
      if (files.count("notes") > 0) {
        EXPECT_EQ(adopting.getFileName(11), "notes");
      }
      EXPECT_EQ(adopting.create(*schema, std::nullopt), next);
    }
    // If two files have the same number, the writer knows the first one that it found.
    EXPECT_EQ(folder.names().size(), files.count("12") > 0 ? 2U : 1U);
    test::fs::remove_all(folder.file(""));
  }
  putFile("2147483647");
  putFile("x");
  EXPECT_THAT([&] { StreamableWriter{store.path()}; },
              ThrowsMessage<std::runtime_error>(HasSubstr("no storage ids left")));
}

TEST_F(StreamableWriterTest, AdoptedFilesOfUnequalGroupsAreReadByTheLaggingWalk) {
  putFile("5", {10, 20, 30});
  putFile("6", {100, 5, 5});
  writer->setParquetDirectory(store.path());
  EXPECT_THAT(read(5, 20, 23), ElementsAre(30, 31, 32));
  EXPECT_THROW(read(6, 106, 110), std::range_error);
  EXPECT_THAT(read(6, 104, 110), ElementsAre(104));  // the id is not lost
}

TEST_F(StreamableWriterTest, DirectoryIsSetOnceAndLookedThroughEachTime) {
  EXPECT_THAT([&] { writer->setParquetDirectory(temp.path()); },
              ThrowsMessage<std::runtime_error>("Parquet directory cannot be changed!"));
  EXPECT_EQ(writer->parquetDirectory(), store.path());
  const int open = openFile(2);
  putFile("4");
  putFile("0.late");
  writer->setParquetDirectory(store.path());
  EXPECT_THAT(writer->getAllParquetStorageIDs(), UnorderedElementsAre(0, 4));
  writer->write(open, *countingTable(1, 2));  // the file is still open
  writer->close(open);
  EXPECT_THAT(read(open), ElementsAre(0, 1, 2));
  EXPECT_EQ(writer->create(*schema, std::nullopt), 5);
}

TEST_F(StreamableWriterTest, DefaultDirectoryIsTheCurrentOne) {
  putFile("2");
  const auto before = test::fs::current_path();
  test::fs::current_path(store.file(""));
  {
    StreamableWriter current;
    test::fs::current_path(before);
    EXPECT_TRUE(test::fs::equivalent(current.parquetDirectory().toFilesystem(), store.file("")));
    EXPECT_THAT(current.getAllParquetStorageIDs(), ElementsAre(2));
  }
  EXPECT_EQ(store.names(), Names{});
}

TEST_F(StreamableWriterTest, MissingDirectoryFailsWhenAFileIsMade) {
  StreamableWriter early(temp.path().join("missing"));
  EXPECT_THAT([&] { early.create(*schema, std::nullopt); },
              ThrowsMessage<::parquet::ParquetStatusException>(HasSubstr("missing/0: ")));
  EXPECT_TRUE(early.isParquetDirectoryEmpty());
  test::fs::create_directory(temp.file("missing"));
  EXPECT_EQ(early.create(*schema, std::nullopt), 1);
}

TEST_F(StreamableWriterTest, DestructorDeletesWhatItKnowsUnlessToldToPreserve) {
  for (const bool preserve : {true, false}) {
    putFile("50");
    store.touch("text");
    writer = std::make_unique<StreamableWriter>(store.path());
    writer->preserveDirectory(preserve);
    const int open = openFile(3);
    const int read = closedFile(1);
    writer->read(read, 0, kAll);
    const int lost = closedFile(1);
    EXPECT_THROW(writer->write(lost, *countingTable(1)), std::runtime_error);
    const int gone = closedFile(1);
    test::fs::remove(store.file(gone));
    writer.reset();
    if (preserve) {
      EXPECT_EQ(store.names(), (Names{"50", "51", "52", "53", "text"}));
      EXPECT_THAT(rowGroupsOf(store.file(open)), ElementsAre(3));  // with its footer
      for (const int id : {open, read, lost}) test::fs::remove(store.file(id));
    } else {
      EXPECT_EQ(store.names(), (Names{std::to_string(lost), "text"}));
    }
  }
}

TEST_F(StreamableWriterTest, FailedOperationSaysWhyAndLosesItsIdOnly) {
  const auto wide = test::tableOf({{"data", test::column(::arrow::float64(), {"[1]"})},
                                   {"more", test::column(::arrow::float64(), {"[1]"})}});
  const auto narrow = test::tableOf({{"data", test::column(::arrow::float32(), {"[1]"})}});
  using Operation = std::function<void(int)>;
  struct {
    std::string says;
    bool open;
    Operation operation;
  } const cases[] = {
      {"File is not opened.", false, [&](int id) { writer->write(id, *countingTable(1)); }},
      {"Only parquet file writer is accepted in write().", false,
       [&](int id) {
         read(id);
         writer->write(id, *countingTable(1));
       }},
      {"Parquet schema mismatch.", true, [&](int id) { writer->write(id, *wide); }},
      {"Parquet schema mismatch.", true, [&](int id) { writer->write(id, *narrow); }},
      {"File is still open for writing.", true, [&](int id) { read(id); }},
      {"File is still open for writing.", true,
       [&](int id) { writer->clone(id, openFile(1), 0, 1); }},
      {"File is not opened.", false, [&](int id) { writer->clone(closedFile(1), id, 0, 1); }},
      {"No such file", false,
       [&](int id) {
         test::fs::remove(store.file(id));
         read(id);
       }},
      {"Parquet magic bytes not found", false,
       [&](int id) {
         store.touch(std::to_string(id), "PAR1 and then nothing of the kind");
         read(id);
       }},
  };
  const int healthy = openFile(1);
  for (const auto& [says, open, operation] : cases) {
    SCOPED_TRACE(says);
    const int id = open ? openFile(2) : closedFile(2);
    EXPECT_THAT(([&, &run = operation] { run(id); }),
                ThrowsMessage<std::exception>(HasSubstr(says)));
    const std::string lost = "storage id " + std::to_string(id) + " is lost";
    const Operation later[] = {[&](int i) { writer->write(i, *countingTable(1)); },
                               [&](int i) { writer->close(i); }, [&](int i) { read(i); },
                               [&](int i) { writer->getFileName(i); }};
    for (const auto& use : later) {
      EXPECT_THAT([&] { use(id); }, ThrowsMessage<std::out_of_range>(StartsWith(lost)));
    }
    EXPECT_TRUE(writer->checkDataChunkExists(id));
    const Names files = store.names();
    writer->remove(id);
    EXPECT_FALSE(writer->checkDataChunkExists(id));
    EXPECT_EQ(store.names(), files);
  }
  writer->write(healthy, *countingTable(1, 1));
  writer->close(healthy);
  EXPECT_THAT(read(healthy), ElementsAre(0, 1));
}

TEST_F(StreamableWriterTest, UnknownIdsAreOutOfRange) {
  const int known = closedFile(1);
  const std::function<void()> uses[] = {[&] { writer->write(7, *countingTable(1)); },
                                        [&] { writer->close(7); },
                                        [&] { writer->read(7, 0, 1); },
                                        [&] { writer->remove(7); },
                                        [&] { writer->getFileName(7); },
                                        [&] { writer->clone(7, known, 0, 1); },
                                        [&] { writer->clone(known, 7, 0, 1); }};
  for (const auto& use : uses) {
    EXPECT_THAT(use, ThrowsMessage<std::out_of_range>("storage id 7 is not known"));
  }
  EXPECT_FALSE(writer->checkDataChunkExists(7));
  EXPECT_TRUE(writer->writeStatus(7).ok());
  EXPECT_THAT(read(known), ElementsAre(0));
}

TEST_F(StreamableWriterTest, ReaderStaysOpenUntilTheFileIsClosed) {
  const int id = closedFile(2);
  read(id);
  test::fs::remove(store.file(id));
  EXPECT_THAT(read(id, 1, 2), ElementsAre(1));
  writer->close(id);
  EXPECT_THROW(read(id), ::parquet::ParquetStatusException);
}

TEST_F(StreamableWriterTest, CloneAppendsTheRowsThatThereAre) {
  const int source = closedFile(5);
  const int copy = writer->create(*schema, std::nullopt);
  writer->clone(source, copy, 1, 3);
  writer->clone(source, copy, 4, 100);
  writer->clone(source, copy, 5, 100);  // an empty row group
  writer->clone(source, copy, 6, 100);  // nothing
  writer->clone(source, copy, 0, kAll);
  writer->close(copy);
  EXPECT_THAT(rowGroupsOf(store.file(copy)), ElementsAre(2, 1, 0, 5));
  EXPECT_THAT(read(copy), ElementsAre(1, 2, 4, 0, 1, 2, 3, 4));
}

TEST_F(StreamableWriterTest, RemovedIdsAreNotHandedOutAgain) {
  EXPECT_EQ(closedFile(1), 0);
  writer->remove(0);
  EXPECT_TRUE(writer->isParquetDirectoryEmpty());
  EXPECT_EQ(store.names(), Names{});
  const int open = openFile(1);
  EXPECT_EQ(open, 1);
  const int read = closedFile(1);
  this->read(read);
  const int gone = closedFile(1);
  test::fs::remove(store.file(gone));
  for (const int id : {gone, open, read}) writer->remove(id);
  EXPECT_EQ(store.names(), Names{});
  EXPECT_EQ(openFile(1), 4);
}

TEST_F(StreamableWriterTest, FailedTableWritesAreSilentButTheirStatusIsKept) {
  const int good = openFile(1);
  const int bad = writer->create(*schema, Codec::LZ4_FRAME);
  writer->write(bad, *countingTable(1));
  EXPECT_THAT(writer->lastWriteStatus().ToString(), HasSubstr("lz4"));
  const auto status = writer->writeStatus(bad);
  EXPECT_FALSE(status.ok());
  writer->write(bad, *countingTable(1));
  writer->close(bad);
  writer->write(good, *countingTable(1));
  EXPECT_TRUE(writer->lastWriteStatus().ok());
  EXPECT_EQ(writer->writeStatus(bad), status);
  EXPECT_TRUE(writer->writeStatus(good).ok());
  EXPECT_THAT(read(bad), ElementsAre());
  writer->remove(bad);
  EXPECT_TRUE(writer->writeStatus(bad).ok());
}

}  // namespace
}  // namespace kyr::parquet
