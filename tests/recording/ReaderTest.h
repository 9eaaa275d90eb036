#pragma once

#include <arrow/api.h>
#include <arrow/c/abi.h>
#include <arrow/c/bridge.h>
#include <gmock/gmock.h>
#include <xxhash.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kyr/recording/RecordingReader.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"
#include "support/ParquetFiles.h"

namespace kyr::test {

using recording::RecordingReader;
using recording::RowRange;

/// A recording that is read in place.
class ReaderTest : public RecordingTest {
 protected:
  static constexpr std::uint64_t kBlock = 262'144;

  RecordingReader read(bool checks = true) const {
    recording::ReaderOptions options;
    options.checks = checks;
    return RecordingReader(Path::fromFilesystem(rec), options);
  }

  // Writes recording.json anew, with a checksum that fits.
  void describe(const std::function<void(recording::RecordingInfo& info)>& edit) const {
    recording::RecordingInfo info =
        recording::readRecordingJson(readWholeFile(rec / "recording.json"), "");
    edit(info);
    fs::remove(rec / "recording.json");
    writeNewFile(rec / "recording.json", recording::writeRecordingJson(info));
  }

  // Lists the files in recording.json as they are now.
  void listFiles(bool withBlocks) const {
    describe([&](recording::RecordingInfo& info) {
      for (recording::FileInfo& file : info.files) {
        const std::string content = readWholeFile(recording::storagePath(rec, file.storageId));
        file.size = content.size();
        file.checksum = recording::digestFile(recording::storagePath(rec, file.storageId)).checksum;
        file.blocks.clear();
        for (std::size_t at = 0; withBlocks && content.size() > kBlock && at < content.size();
             at += kBlock) {
          file.blocks.push_back(
              XXH3_64bits(content.data() + at, std::min<std::size_t>(kBlock, content.size() - at)));
        }
      }
    });
  }

  static Samples samplesOf(const RecordingReader& reader, int id, const RowRange& rows = {}) {
    recording::SampleRows read = reader.read(id, rows);
    return {std::move(read.times), std::move(read.bytes), std::move(read.dimensions),
            std::move(read.sizes)};
  }

  // The same, from blocks of few rows.
  static Samples walk(const RecordingReader& reader, int id, const RowRange& rows,
                      std::size_t maxRows) {
    Samples all;
    recording::SampleBlocks blocks = reader.blocks(id, rows, maxRows);
    const std::size_t width = reader.elementBytes(id);
    std::uint64_t next = rows.from;
    while (const recording::SampleBlock* block = blocks.next()) {
      EXPECT_EQ(block->firstRow, next);
      EXPECT_LE(block->rows, maxRows);
      next += block->rows;
      if (block->times) all.time.insert(all.time.end(), block->times, block->times + block->rows);
      const auto* const bytes = static_cast<const char*>(block->elements);
      const std::size_t elements =
          block->offsets ? block->offsets[block->rows] : block->rows * block->elementsPerSample;
      all.data.insert(all.data.end(), bytes, bytes + elements * width);
      for (std::size_t i = 0; block->offsets && i < block->rows; ++i) {
        all.lengths.push_back(static_cast<int>(block->offsets[i + 1] - block->offsets[i]));
      }
      for (std::size_t i = 0; block->extents && i < block->rows; ++i) {
        all.dims.emplace_back(block->extents + block->extentOffsets[i],
                              block->extents + block->extentOffsets[i + 1]);
      }
    }
    return all;
  }

  static std::shared_ptr<::arrow::Table> arrowOf(const RecordingReader& reader, int id,
                                                 const RowRange& rows = {},
                                                 std::size_t maxRows = 3) {
    ArrowArrayStream stream;
    reader.exportTo(id, &stream, rows, maxRows);
    const auto imported = ::arrow::ImportRecordBatchReader(&stream).ValueOrDie();
    auto table = imported->ToTable().ValueOrDie();
    must(table->ValidateFull());
    return table;
  }
};

}  // namespace kyr::test
