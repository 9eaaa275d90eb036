#pragma once

#include <arrow/type_fwd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "files/CheckedFile.h"
#include "files/InputFile.h"
#include "files/RowGroupCache.h"
#include "schema/PartTables.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// An open file of samples: the file of one content, or a pack, which has many contents of one
/// schema one after the other. Readers of these contents share the object.
///
/// Failures are those of InputFile. One thread at a time.
class ContentFile {
 public:
  enum class Kind { single, pack };

  /// \throws std::runtime_error naming the file if its columns are not those of a content or a pack
  ContentFile(std::shared_ptr<InputFile> file, Kind kind, std::shared_ptr<RowGroupCache> cache);
  ~ContentFile() { forgetGroups(); }
  ContentFile(const ContentFile&) = delete;
  ContentFile& operator=(const ContentFile&) = delete;

  InputFile& input() { return *file_; }
  bool isPack() const { return kind_ == Kind::pack; }
  /// The columns "data" and "dimension".
  const SampleSchema& schema() const { return schema_; }
  /// Whether there is a column "time" beside them.
  bool hasTimes() const { return hasTimes_; }
  /// Whether each row is one number.
  bool isFlat() const { return schema_.kind == ColumnKind::flat && schema_.dimensionIndex < 0; }
  /// Bytes of an element.
  std::size_t width() const { return width_; }

  /// A row group, which is kept in the cache.
  std::shared_ptr<const DecodedGroup> group(std::size_t index);
  /// Frees the memory of the row groups of this file that are in the cache.
  void forgetGroups() { cache_->forget(*file_); }
  /// \throws std::runtime_error naming the file if its columns make no samples
  void requireReadable() const;
  /// \throws std::runtime_error naming the file if rows from \p first on make no samples
  void requireRowsOf(const ::arrow::Table& table, std::uint64_t first) const;

 private:
  void decode(std::size_t index, DecodedGroup& group);
  // Puts the name of the file before what \p check finds wrong.
  template <typename Check>
  void naming(Check&& check) const;

  std::shared_ptr<InputFile> file_;
  Kind kind_;
  std::shared_ptr<RowGroupCache> cache_;
  SampleSchema schema_;
  std::size_t width_ = 1;
  bool hasTimes_ = false;
};

/// Rows of a content in a growing pack.
struct ContentRun {
  std::uint64_t first = 0;  ///< row of the content
  std::uint64_t count = 0;
  std::uint64_t row = 0;  ///< row of the pack with which they begin
  std::shared_ptr<ContentFile> pack;
};

/// Reads rows of one content, wherever they are: in a file of their own, which may be growing, or
/// in some rows of a pack. In a recording that grows, rows in growing packs may follow, run by run.
/// Rows are numbered from the first one of the content.
///
/// Memory: the rows that are asked for, and row groups in the cache unless the column holds
/// numbers. Failures are those of InputFile. One thread at a time.
class ContentReader {
 public:
  ContentReader(std::shared_ptr<InputFile> file, std::shared_ptr<RowGroupCache> cache);
  /// Rows [first, first + count) of a pack, which belong to the content \p storageId.
  /// \throws std::runtime_error if the pack has no such rows
  ContentReader(std::shared_ptr<ContentFile> pack, int storageId, std::uint64_t first,
                std::uint64_t count);
  /// Some of the columns of a file with times beside the samples, as a content of their own: the
  /// samples, or the times as a column "data".
  enum class View { all, samples, times };
  /// \throws std::runtime_error naming the file if it has no column "time" of float64
  static std::shared_ptr<ContentReader> viewOf(const ContentReader& content, View view);

  const InputFile& file() const { return file_->input(); }
  bool isPacked() const { return file_->isPack(); }
  std::uint64_t rows() const {
    return runs_.empty() ? ownRows() : runs_.back().first + runs_.back().count;
  }
  /// Rows that are in no run.
  std::uint64_t ownRows() const { return isPacked() ? count_ : file().rows(); }
  /// Replaces the runs that follow the other rows.
  /// \param runs  of the content \p storageId, each beginning where the one before ends
  /// \throws std::runtime_error naming a pack whose columns are not those of the content
  void setRuns(int storageId, std::vector<ContentRun> runs);
  /// Takes note of rows that a growing file got meanwhile, up to \p rows.
  void grow(std::uint64_t rows);

  /// All columns of the content.
  const std::shared_ptr<::arrow::Schema>& columns() const {
    return hasTimes() ? file().schema() : schema().schema;
  }
  /// The columns "data" and "dimension".
  const SampleSchema& schema() const { return isTimes() ? timeSchema() : file_->schema(); }
  /// Whether there is a column "time" beside them.
  bool hasTimes() const { return view_ == View::all && file_->hasTimes(); }
  /// Whether each row is one number.
  bool isFlat() const { return isTimes() || file_->isFlat(); }
  /// Bytes of an element.
  std::size_t width() const { return isTimes() ? sizeof(double) : file_->width(); }
  /// Whether a file holds these rows and nothing else.
  bool isWholeFile() const { return !isPacked() && view_ == View::all && runs_.empty(); }
  ::arrow::Compression::type codec() const;

  /// Parts of the content that are decoded together, and the first row of each; part parts() begins
  /// behind the last row.
  std::size_t parts() const;
  std::uint64_t partStart(std::size_t part) const;
  std::size_t partOfRow(std::uint64_t row) const;
  /// Does what InputFile::ascendingGroups() does, by part.
  std::vector<std::optional<NumberRange>> ascendingParts(std::size_t first) const;

  /// Writes the numbers of rows [first, first + count), which there must be, to \p out.
  /// \param column  "data" if isFlat(), or "time" if hasTimes()
  void readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count, char* out);
  /// Rows [first, first + count) of "data" and "dimension", which there must be. They stay as they
  /// are as long as their keeper lives.
  HeldRows read(std::uint64_t first, std::uint64_t count);
  /// The same rows of all columns, in a table, if there is a column "time".
  std::shared_ptr<::arrow::Table> readTable(std::uint64_t first, std::uint64_t count);

  /// The rows that need some of the bytes that are damaged.
  RowSpan rowsIn(const DamagedBytes& damage) const;

 private:
  bool isTimes() const { return view_ == View::times; }
  // The same for rows of the file or the finished pack, and with all rows in one run.
  void readOwnNumbers(const std::string& column, std::uint64_t first, std::uint64_t count,
                      char* out);
  HeldRows readOwn(std::uint64_t first, std::uint64_t count);
  // Calls visit(run, row of its pack, count) with the runs that hold rows [first, first + count).
  template <typename Visit>
  void forEachRun(std::uint64_t first, std::uint64_t count, Visit&& visit) const;
  std::size_t ownParts() const;
  // How many of rows [first, first + count) are in no run.
  std::uint64_t ownAmong(std::uint64_t first, std::uint64_t count) const {
    return std::min(count, ownRows() - std::min(first, ownRows()));
  }
  HeldRows readGroup(std::size_t group, std::size_t from, std::size_t count);
  void requireOwnRows(const DecodedGroup& group, std::size_t index, std::size_t from,
                      std::size_t count) const;
  void requireRows(std::uint64_t first, std::uint64_t count) const;

  std::shared_ptr<ContentFile> file_;
  View view_ = View::all;
  int storageId_ = 0;        // of rows in packs
  std::uint64_t first_ = 0;  // this and the next are of rows of one pack
  std::uint64_t count_ = 0;
  std::vector<ContentRun> runs_;
};

}  // namespace kyr::parquet
