#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "safe/FileLayouts.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

class BatchDigests;
struct ContentSummary;
class GrowingRows;

using Tables = std::vector<std::shared_ptr<::arrow::Table>>;

/// The rows of a content, in one of the ways in which they lie: GrowingRows take more rows,
/// MemoryRows are finished and have no file yet, SpilledRows are finished and partly in packs,
/// StoredRows are in a finished file, and BorrowedRows are in the files of a saved recording.
///
/// What has to be opened or decoded for an answer is opened or decoded then. Failures of files are
/// std::system_error or std::runtime_error and name the file; nothing has changed then, and the
/// call may be repeated.
class ContentRows {
 public:
  ContentRows() = default;
  virtual ~ContentRows() = default;
  ContentRows(const ContentRows&) = delete;
  ContentRows& operator=(const ContentRows&) = delete;

  virtual std::uint64_t count() = 0;
  virtual const SampleSchema& schema() = 0;
  /// Bytes of an element.
  virtual std::size_t width() = 0;

  /// The codec that a file of the rows is to have; empty if the rows may choose one.
  virtual AskedCodec askedCodec() = 0;
  /// The codec of the rows' file, or of the one that they would get.
  virtual ::arrow::Compression::type codec() = 0;

  /// Rows [from, to) without those beyond the end, if they are in memory or can be decoded to it as
  /// a whole; empty otherwise, and where there are none.
  virtual std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) = 0;
  /// Rows [from, to), which there must be, in tables in order. Valid until the rows change.
  virtual Tables read(std::uint64_t from, std::uint64_t to) = 0;
  /// Replaces \p times by all rows, if they are doubles in a file that can be read without tables.
  /// The times that were read last are kept for others who read the same file.
  /// \return whether they are
  virtual bool readTimes(std::vector<double>& /*times*/) { return false; }
  /// Replaces \p elements by all rows, if they are numbers of \p type, or lists of them, in a file
  /// that can be read without tables.
  /// \param sizes  receives the numbers in each list; none if the rows are numbers
  /// \return whether they are
  virtual bool readElements(const ::arrow::DataType& /*type*/, std::vector<char>& /*elements*/,
                            std::vector<int>& /*sizes*/) {
    return false;
  }

  /// What is known of rows that are not in memory; null if nothing is.
  virtual const BatchDigests* digests() const { return nullptr; }
  /// What is known of all rows; null if nothing is, or if more rows can follow.
  virtual const ContentSummary* summary() const { return nullptr; }
  /// The rows themselves, if they take more rows; else null.
  virtual GrowingRows* growing() { return nullptr; }

  // Each of these returns the rows that take the place of these ones, or null if these stay.

  /// Brings all rows to disk. Rows that grow go on.
  virtual std::unique_ptr<ContentRows> flush() { return nullptr; }
  /// Lets no more rows follow.
  virtual std::unique_ptr<ContentRows> finish() { return nullptr; }
  /// Gives finished rows a file of their own in the pool's directory.
  virtual std::unique_ptr<ContentRows> moveToOwnFile() { return nullptr; }

  /// Whether the rows have a file of their own in the pool's directory.
  virtual bool hasOwnFile() const { return false; }
  /// Copies the rows' finished file to a new one.
  /// \return whether they have one
  virtual bool copyFile(const std::filesystem::path& /*path*/, bool /*sync*/) { return false; }
};

}  // namespace kyr::parquet
