#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "files/RowReader.h"
#include "files/growing/GrowingRecords.h"
#include "platform/ByteSource.h"

namespace kyr::parquet {

/// The rows [from, to) of a file or content.
struct RowSpan {
  std::uint64_t from = 0;
  std::uint64_t to = 0;
};

/// Smallest and largest number of a row group.
struct NumberRange {
  double min = 0;
  double max = 0;
};

/// Whether batches of a growing file are compared with the checksums of their records before their
/// rows are handed out for the first time.
enum class BatchChecks { no, yes };

/// A Parquet file that is open for reading: one that is complete, or a growing file (GrowingFile.h)
/// that another process may be writing.
///
/// What makes the file unreadable is a std::runtime_error that names it: a std::system_error if the
/// system says so, a DamagedBytes if bytes are not what they were. One thread at a time.
class InputFile {
 public:
  /// A complete file.
  explicit InputFile(std::shared_ptr<const ByteSource> file);
  /// A growing file with the given records.
  InputFile(std::shared_ptr<const ByteSource> file, GrowingRecords records, BatchChecks checks);

  const std::filesystem::path& path() const { return file_->path(); }
  const ByteSource& bytes() const { return *file_; }
  std::uint64_t rows() const { return records_.index.rows(); }
  std::size_t rowGroups() const { return records_.index.batches(); }
  /// First row of a row group, which may be the one behind the last.
  std::uint64_t rowStart(std::size_t group) const { return records_.index.rowStart(group); }
  /// The row group that holds a row, which there must be.
  std::size_t groupOfRow(std::uint64_t row) const { return records_.index.batchOfRow(row); }
  bool isPublished() const { return records_.isPublished; }

  /// The columns as signals have them: nullable, without metadata.
  const std::shared_ptr<::arrow::Schema>& schema() const;
  bool hasColumn(const std::string& name) const;
  /// The codec of the column's first chunk; uncompressed if there is none.
  ::arrow::Compression::type codec(const std::string& column) const;
  /// The key-value metadata; null if there are none.
  std::shared_ptr<const ::arrow::KeyValueMetadata> keyValueMetadata() const;

  /// The ranges of the row groups that are marked as ascending: their numbers ascend, repetitions
  /// included, and none is NaN. Only files with a single column of float64 have such marks.
  /// \param first  row group to begin with
  std::vector<std::optional<NumberRange>> ascendingGroups(std::size_t first) const;

  /// Rows [first, first + count).
  /// \param columns  names; all if none are given
  std::shared_ptr<::arrow::Table> read(std::uint64_t first, std::uint64_t count,
                                       const std::vector<std::string>& columns = {});
  /// Writes the numbers of rows [first, first + count) to \p out.
  /// \param column  of numbers
  void readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count, char* out);

  /// The rows of the row groups that have some of the bytes [from, to); all rows if those bytes
  /// belong to no row group.
  RowSpan rowsIn(std::uint64_t from, std::uint64_t to) const;

  /// Compares all batches with their checksums.
  /// \return the rows before the first batch whose checksum does not fit; all rows if none are
  ///         compared
  std::uint64_t soundRows();

  /// Takes note of batches that a growing file got since it was opened, up to \p rows rows.
  void grow(std::uint64_t rows);

 private:
  struct Leaves {
    int first = 0;
    int count = 0;
    std::size_t width = 0;  // bytes of a number in memory; 0 for other columns
  };

  [[noreturn]] void fail(const std::string& what) const;
  const Leaves& leavesOf(const std::string& column) const;
  void readSchema() const;
  void checkBatches(std::uint64_t first, std::uint64_t count);
  void checkBatch(std::size_t batch);

  std::shared_ptr<const ByteSource> file_;
  GrowingRecords records_;
  RowReader reader_;
  std::optional<std::vector<bool>> checked_;  // batches of a growing file whose checksum fitted
  mutable std::shared_ptr<::arrow::Schema> schema_;
  mutable std::vector<Leaves> leaves_;  // of the schema's columns
};

/// Whether a file begins like a growing file, whose batches have checksums of their own.
bool isGrowingFile(const ByteSource& file);

/// Opens a growing file that another process may be writing. Takes the batches from the footer if
/// there is one, otherwise from the batch records.
/// \param rows  batches are looked for up to so many rows, which were complete before the call.
///        What is behind them may just be being written
/// \throws std::runtime_error if it is no growing file, or one whose first record is not there yet
std::shared_ptr<InputFile> openGrowingFile(std::shared_ptr<const ByteSource> file,
                                           std::uint64_t rows, BatchChecks checks);

/// The same with all batches whose checksums fit: one that is just being written is left out.
std::shared_ptr<InputFile> openGrowingFile(const std::filesystem::path& path);

/// Opens a file that may be a growing one or not, as openGrowingFile().
std::shared_ptr<InputFile> openAnyFile(std::shared_ptr<const ByteSource> file, std::uint64_t rows,
                                       BatchChecks checks);

}  // namespace kyr::parquet
