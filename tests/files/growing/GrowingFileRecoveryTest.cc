#include <gmock/gmock.h>

#include <algorithm>
#include <system_error>

#include "files/InputFile.h"
#include "files/growing/BatchRecord.h"
#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

namespace kyr::parquet {
namespace {

namespace fs = std::filesystem;

using test::countingTable;
using test::numbersOf;

const std::string kName = "0";

RecordHash hashOf(std::string_view payload) {
  RecordHash hash;
  hash.add(payload);
  return hash;
}

// Uses a directory in memory if there is one, because thousands of recoveries wait for the disk.
class MemoryDir {
 public:
  MemoryDir() : before_(fs::temp_directory_path()) {
    if (fs::is_directory("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
    folder_.emplace();
  }
  ~MemoryDir() {
    folder_.reset();
    setenv("TMPDIR", before_.c_str(), 1);
  }
  MemoryDir(const MemoryDir&) = delete;
  const test::Folder* operator->() const { return &*folder_; }

 private:
  fs::path before_;
  std::optional<test::TempDir> folder_;
};

class GrowingFileRecovery : public ::testing::Test {
 protected:
  GrowingFileRecovery() : path(folder->file(kName)) {}

  // Notes the published file after each number of batches, and where its last record ends.
  void grow(int batches, std::int64_t rows) {
    const auto file =
        GrowingFile::create(path, countingTable(0)->schema(),
                            ::parquet::WriterProperties::Builder().disable_dictionary()->build(),
                            ::arrow::key_value_metadata({{"unit", "m/s"}}));
    for (int i = 0;; ++i) {
      published.push_back(folder->contents(kName));
      const DiskFile there(path, DiskFile::Mode::readOnly);
      ends.push_back(readFooter(there, there.size())->header.offset);
      const auto plain = ::parquet::ParquetFileReader::OpenFile(path);
      ASSERT_EQ(plain->metadata()->num_rows(), i * rows);
      ASSERT_EQ(numbersOf(*openGrowingFile(path)->read(0, file->rowCount())).size(), i * rows);
      if (i == batches) break;
      file->appendBatch(*countingTable(rows, static_cast<double>(file->rowCount())), true);
    }
    rowsPerBatch = static_cast<std::uint64_t>(rows);
  }

  std::string record(std::size_t index) const {
    const std::uint64_t start = index == 0 ? 4 : ends[index - 1];
    return published.back().substr(start, ends[index] - start);
  }

  // Recovers \p bytes, of which the first \p good are as they were written.
  void expectAllBefore(std::uint64_t good, const std::string& bytes) {
    folder->touch(kName, bytes);
    const auto whole =
        static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), good) - ends.begin());
    const auto report = recoverFile(kyr::Folder(path.parent_path()), path.filename());
    ASSERT_EQ(report.isComplete, whole > 0) << good;
    if (whole == 0) {
      ASSERT_EQ(folder->contents(kName), bytes);
      return;
    }
    ASSERT_EQ(report.batchesKept, whole - 1) << good;
    ASSERT_EQ(report.rowsKept, (whole - 1) * rowsPerBatch);
    ASSERT_EQ(report.wasComplete, bytes == published[whole - 1]);
    ASSERT_EQ(report.bytesCut, report.wasComplete ? 0 : bytes.size() - ends[whole - 1]);
    ASSERT_EQ(folder->contents(kName), published[whole - 1]);
  }

  MemoryDir folder;
  fs::path path;
  std::vector<std::string> published;
  std::vector<std::uint64_t> ends;
  std::uint64_t rowsPerBatch = 0;
};

TEST_F(GrowingFileRecovery, CutAnywhereKeepsEveryWholeBatch) {
  struct {
    int batches;
    std::int64_t rows;
    std::size_t lengths;
  } const cases[] = {{0, 1, 9999}, {4, 3, 9999}, {12, 50, 4096}};
  for (const auto& [batches, rows, lengths] : cases) {
    published.clear();
    ends.clear();
    grow(batches, rows);
    const std::string all = published.back();
    for (std::size_t cut = 0; cut <= std::min(all.size(), lengths); ++cut) {
      const std::size_t kept = all.size() - cut;
      ASSERT_NO_FATAL_FAILURE(expectAllBefore(kept, all.substr(0, kept)));
    }
    fs::remove(path);
  }
}

TEST_F(GrowingFileRecovery, DamageAnywhereKeepsEveryBatchBefore) {
  grow(4, 3);
  const std::string all = published.back();
  for (std::size_t at = 0; at < all.size(); ++at) {
    for (const char flip : {'\x01', '\x80', '\xff'}) {
      std::string damaged = all;
      damaged[at] = static_cast<char>(damaged[at] ^ flip);
      // No record depends on the first four bytes.
      ASSERT_NO_FATAL_FAILURE(expectAllBefore(at < 4 ? all.size() : at, damaged));
    }
  }
}

TEST_F(GrowingFileRecovery, WhateverFollowsTheRecordsIsCut) {
  grow(4, 300);
  const DiskFile original(path, DiskFile::Mode::readOnly);
  RecordHeader header = readRecord(original, RecordKind::batch, ends[2], ends[3])->header;
  header.fileId ^= 1U;
  const std::string payload = record(3).substr(kBatchHeaderBytes);
  const std::string ofAnotherFile = encodeHeader(header, hashOf(payload)) + payload;
  const std::string noise = published[2].substr(50, 3000);
  for (const std::string& tail :
       {std::string(1, '\0'), std::string(70'000, '\0'), noise, noise + "PAR1", record(4),
        ofAnotherFile, record(1), published[2].substr(ends[2]), published[2]}) {
    expectAllBefore(ends[2], published[2].substr(0, ends[2]) + tail);
    expectAllBefore(ends[2], published[2] + tail);
  }
}

// Other programs see all batches of the footer, or none.
TEST_F(GrowingFileRecovery, HalfOverwrittenFooterIsNoFooter) {
  grow(30, 3);
  const std::string next = record(30);
  std::string bytes = published[29];
  ASSERT_GT(bytes.size(), ends[29] + next.size());
  for (std::size_t i = 0; i < next.size(); ++i) {
    bytes[ends[29] + i] = next[i];
    ASSERT_NO_FATAL_FAILURE(expectAllBefore(ends[29] + i + 1, bytes));
    folder->touch(kName, bytes);
    EXPECT_EQ(openGrowingFile(path)->rowGroups(), i + 1 < next.size() ? 29 : 30);
    if (i < kFooterHeaderBytes) {
      EXPECT_EQ(test::metadataOf(path)->num_row_groups(), 29);
    } else {
      EXPECT_THROW(test::metadataOf(path), ::parquet::ParquetException) << i;
    }
  }
}

TEST_F(GrowingFileRecovery, LeavesOtherFilesAlone) {
  test::writeForeignFile(folder->file("foreign"), *countingTable(10));
  for (const std::string& bytes :
       {std::string(), std::string("P"), std::string("PAR1"), std::string("PAR1PAR1"),
        std::string(5000, '\0'), folder->contents("foreign")}) {
    expectAllBefore(0, bytes);
    EXPECT_THROW(openGrowingFile(path), std::runtime_error);
  }
  fs::remove(path);
  EXPECT_THROW(recoverFile(kyr::Folder(path.parent_path()), path.filename()), std::system_error);
}

// The metadata are forged and the checksum fits. Whether recovery accepts them or not, it reads
// nothing outside of the record.
TEST_F(GrowingFileRecovery, ForgedMetadataDoNoHarm) {
  grow(2, 3);
  const DiskFile original(path, DiskFile::Mode::readOnly);
  int kept = 0;
  for (const std::size_t index : {std::size_t{0}, std::size_t{2}}) {
    const std::uint64_t start = index == 0 ? 4 : ends[index - 1];
    const auto whole = readRecord(original, RecordKind::batch, start, original.size());
    ASSERT_TRUE(whole);
    const std::uint64_t at = whole->header.dataOffset() + whole->header.rowGroupBytes;
    for (std::size_t i = 0; i < whole->metadata.size(); ++i) {
      for (const int flip : {0x01, 0x0f, 0x40, 0xff}) {
        std::string bytes = published.back();
        bytes[at + i] = static_cast<char>(bytes[at + i] ^ flip);
        bytes.replace(start, kBatchHeaderBytes,
                      encodeHeader(whole->header, hashOf(std::string_view(bytes).substr(
                                                      whole->header.dataOffset(),
                                                      ends[index] - whole->header.dataOffset()))));
        folder->touch("forged", bytes);
        const auto report = recoverFile(kyr::Folder(folder->path().toFilesystem()), "forged");
        EXPECT_LE(report.rowsKept, 6U);
        if (!report.isComplete) continue;
        ++kept;
        auto view = openGrowingFile(folder->file("forged"));
        try {
          view->read(0, view->rows());
        } catch (const std::runtime_error&) {
          continue;
        }
      }
    }
  }
  EXPECT_GT(kept, 100);
}

}  // namespace
}  // namespace kyr::parquet
