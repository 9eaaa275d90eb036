#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/metadata.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "files/PlainLists.h"
#include "files/growing/GrowingRecords.h"
#include "kyr/parquet/ColumnNames.h"
#include "platform/ByteSource.h"
#include "platform/FreshMemory.h"

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
  /// A growing file with the given records. Who writes the file may share and extend them.
  InputFile(std::shared_ptr<const ByteSource> file, std::shared_ptr<GrowingRecords> records,
            BatchChecks checks);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const std::filesystem::path& path() const { return file_->path(); }
  const ByteSource& bytes() const { return *file_; }
  std::uint64_t rows() const { return records_->index.rows(); }
  std::size_t rowGroups() const { return records_->index.batches(); }
  /// First row of a row group, which may be the one behind the last.
  std::uint64_t rowStart(std::size_t group) const { return records_->index.rowStart(group); }
  /// The row group that holds a row, which there must be.
  std::size_t groupOfRow(std::uint64_t row) const { return records_->index.batchOfRow(row); }
  bool isPublished() const { return records_->isPublished; }

  /// The columns as signals have them: nullable, without metadata.
  const std::shared_ptr<::arrow::Schema>& schema() const;
  bool hasColumn(const std::string& name) const;
  /// Whether a column "data" of numbers is the only one.
  /// \param type  of the numbers; any if null
  bool holdsOnlyNumbers(const ::arrow::DataType* type) const;
  /// Bytes of a number of the column in memory; 0 if it holds something else.
  std::size_t numberWidth(const std::string& column) const { return leavesOf(column).width; }
  /// The codec of the column's first chunk; uncompressed if there is none.
  ::arrow::Compression::type codec(const std::string& column) const;
  /// The metadata of all row groups. They stay parsed, for whoever reads the whole file or jumps
  /// to and fro in it.
  std::shared_ptr<::parquet::FileMetaData> metadata();
  /// The key-value metadata; null if there are none.
  std::shared_ptr<const ::arrow::KeyValueMetadata> keyValueMetadata() const;

  /// The ranges of the row groups that are marked as ascending: their numbers ascend, repetitions
  /// included, and none is NaN. Only files with a single column of float64 have such marks.
  /// \param first  row group to begin with
  std::vector<std::optional<NumberRange>> ascendingGroups(std::size_t first) const;

  /// Rows [first, first + count), from the row groups that hold them and no others. Reading on
  /// from where the last call ended parses no metadata and decodes no page of numbers twice. Rows
  /// are not kept.
  /// \param columns  names; all if none are given
  /// \throws std::out_of_range if there are not that many rows
  std::shared_ptr<::arrow::Table> read(std::uint64_t first, std::uint64_t count,
                                       const std::vector<std::string>& columns = {});
  /// Writes the numbers of rows [first, first + count) to \p out, without tables. Plain pages go
  /// there straight from the file, others are decoded there.
  /// \param column  of numbers, none of which is null
  void readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count, char* out);

  /// Whether a column "data" of lists of numbers is the only one.
  bool holdsOnlyLists(const ::arrow::DataType& itemType) const;
  /// Appends all rows of a row group. Plain pages go straight from the file to the caller's memory,
  /// others are decoded.
  /// \param column  of lists of numbers, or of blobs; neither rows nor items may be null
  /// \param items  gives memory for the numbers, or the bytes
  /// \param ends  receives where the items of each row end, counted on from the last end
  void readGroup(const std::string& column, std::size_t group, const ItemMemory& items,
                 std::vector<std::uint64_t>& ends);

  /// The rows of the row groups that have some of the bytes [from, to); all rows if those bytes
  /// belong to no row group.
  RowSpan rowsIn(std::uint64_t from, std::uint64_t to) const;

  /// Compares all batches with their checksums.
  /// \return the rows before the first batch whose checksum does not fit; all rows if none are
  ///         compared
  std::uint64_t soundRows();

  /// Takes note of batches that a growing file got since it was opened, up to \p rows rows.
  void grow(std::uint64_t rows) {
    RecordLimits limits;
    limits.end = file_->size();
    limits.wantedRows = rows;
    limits.checks = false;
    if (records_->count > 0) readOn(limits);  // else it is no growing file
  }
  /// The same, up to the limits.
  void readOn(const RecordLimits& limits);

 private:
  struct Leaves {
    int first = 0;
    int count = 0;
    std::size_t width = 0;      // bytes of a number in memory; 0 for other columns
    std::size_t itemWidth = 0;  // bytes of a number of a list, or 1 for blobs; 0 for other columns
  };
  // Row groups whose metadata are parsed, and what reads them.
  struct Window;

  [[noreturn]] void fail(const std::string& what) const;
  // Calls \p work, and makes what Parquet throws a std::runtime_error that names the file.
  template <typename Work>
  auto naming(Work&& work) const;
  const Leaves& leavesOf(const std::string& column) const;
  // The columns as the file has them.
  const ::arrow::Schema& storedSchema() const;
  void readSchema() const;
  void requireRows(std::uint64_t first, std::uint64_t count) const;
  Window& openGroups(std::size_t first, std::size_t count) const;
  Window& openRows(std::uint64_t first, std::uint64_t count) const;
  Window& openAny() const;
  std::shared_ptr<::arrow::Table> readTable(std::uint64_t first, std::uint64_t count,
                                            const std::vector<std::string>& columns);
  std::shared_ptr<::arrow::Table> tableOfNumbers(std::uint64_t first, std::uint64_t count);
  void checkBatches(std::uint64_t first, std::uint64_t count);
  void checkBatch(std::size_t batch);

  std::shared_ptr<const ByteSource> file_;
  std::shared_ptr<GrowingRecords> records_;
  std::optional<std::vector<bool>> checked_;  // batches of a growing file whose checksum fitted
  mutable std::unique_ptr<Window> window_;
  mutable std::shared_ptr<::arrow::Schema> stored_;
  mutable std::vector<Leaves> leaves_;  // of its columns
  mutable std::shared_ptr<::arrow::Schema> schema_;
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

/// Replaces \p out by rows [first, first + count) of a column of numbers. Memory that \p out has is
/// used. Memory that it does not have is cleared and filled piece by piece, while the piece is in
/// the processor's cache. What is allocated depends on what was read before, so a file that only
/// claims to have many rows takes no memory for them.
/// \param source  an InputFile or a ContentReader
/// \param out  elements of the column's width, or bytes
/// \param width  of a number
template <typename Source, typename T>
void readColumn(Source& source, const std::string& column, std::size_t width, std::uint64_t first,
                std::uint64_t count, std::vector<T>& out) {
  constexpr std::uint64_t kPiece = 32'768;
  constexpr std::uint64_t kAllocated = std::uint64_t{1} << 23U;  // rows, before any was read
  const std::size_t perRow = width / sizeof(T);
  const std::size_t had = std::min<std::uint64_t>(out.size() / perRow, count);
  out.resize(had * perRow);
  for (std::uint64_t done = 0; done < count;) {
    const std::uint64_t end = done < had ? had : std::min(done + kPiece, count);
    if (done >= had) {
      const std::uint64_t worthTrusting = std::min(count, kAllocated + 16 * done);
      if (out.capacity() < end * perRow) {
        platform::reserveMore(out, static_cast<std::size_t>(worthTrusting) * perRow);
      }
      platform::extend(out, static_cast<std::size_t>(end - done) * perRow);
    }
    source.readNumbers(column, first + done, end - done,
                       reinterpret_cast<char*>(out.data() + done * perRow));
    done = end;
  }
}

/// Replaces \p out by all numbers of a file that holds nothing else.
/// \param type  of the numbers; any if null
/// \return whether it is such a file, and a sound one; \p out is overwritten in any case
/// \throws std::system_error naming the file if it cannot be read
template <typename T>
bool readOnlyColumn(std::shared_ptr<const ByteSource> file, const ::arrow::DataType* type,
                    std::vector<T>& out) {
  try {
    InputFile input(std::move(file));
    if (!input.holdsOnlyNumbers(type)) return false;
    input.metadata();
    const std::size_t width = input.numberWidth(columnNames::data);
    readColumn(input, columnNames::data, width, 0, input.rows(), out);
    return true;
  } catch (const std::system_error&) {
    throw;
  } catch (const std::exception&) {
    return false;
  }
}

/// Replaces \p items and \p ends by all lists of a file that holds nothing else.
/// \param ends  receives where the items of each row end
/// \return whether it is such a file, and a sound one; the others are overwritten in any case
/// \throws std::system_error naming the file if it cannot be read
template <typename T>
bool readOnlyLists(std::shared_ptr<const ByteSource> file, const ::arrow::DataType& itemType,
                   std::vector<T>& items, std::vector<std::uint64_t>& ends) {
  // Row groups that follow may have as much for each of their rows, but no more than the file has.
  const std::uint64_t fileBytes = file->size();
  double share = 1;
  const ItemMemory memory = [&](std::size_t bytes, std::size_t rest) {
    const std::size_t needed = items.size() + (bytes + rest) / sizeof(T);
    if (items.capacity() < needed) {
      const double all =
          std::min(static_cast<double>(needed) / share, static_cast<double>(fileBytes) / sizeof(T));
      platform::reserveMore(items, std::max(needed, static_cast<std::size_t>(all) + 1));
    }
    return reinterpret_cast<char*>(platform::extend(items, bytes / sizeof(T)));
  };
  try {
    InputFile input(std::move(file));
    if (!input.holdsOnlyLists(itemType)) return false;
    input.metadata();
    items.clear();
    ends.clear();
    for (std::size_t group = 0; group < input.rowGroups(); ++group) {
      share = static_cast<double>(input.rowStart(group + 1)) / static_cast<double>(input.rows());
      input.readGroup(columnNames::data, group, memory, ends);
    }
    return true;
  } catch (const std::system_error&) {
    throw;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace kyr::parquet
