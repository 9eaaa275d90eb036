#pragma once

#include <arrow/util/type_fwd.h>

#include <optional>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace arrow {
class Status;
}

namespace kyr::parquet {

/// \brief A recorded signal whose samples arrive in pieces while a simulation runs, and of which
/// any window of rows can be read.
///
/// A signal has two parts, its times and its data, which are appended, finished and read one
/// independently of the other. Row i of the time part is the time of row i of the data part; that
/// both have as many rows is up to the caller. Rows gather in memory and go to disk in batches of
/// setBufferSize() rows, each a row group of the part's Parquet file; finish() writes the rest.
/// Parts with equal content share a file.
///
/// The data type is `Double` and the category `Scalar` unless set. Set both, and the codec, before
/// the first append. The directory, its files and the signals of one pool belong to one thread at a
/// time. Destroying the signal does what resetData() does and throws nothing; in a pool that keeps
/// its files, these stay.
///
/// \par What a pool with SafeStorage promises
/// A part is the sequence of rows that were appended to it, whatever was called before, between or
/// after: rows that wait in memory are read like all others, appending goes on after finish(), and
/// no other signal changes what is read. Two contents are equal if their rows are, with type and
/// shapes, bit for bit, however they were cut into chunks. Each failure is thrown by the call that
/// needed what failed; no row is lost then, and the call may be repeated.
///
/// \par What only pools without SafeStorage do
/// Hosts rely on these rules, so they stay as they are:
/// - A part that repeats an earlier one chunk for chunk from its start shares its file and stores
///   nothing. Chunks are compared, not rows: equal rows in chunks of other sizes are not
///   recognised. Equality is decided by a 64-bit hash; category, shapes and sizes are not compared.
/// - A data chunk of doubles equal to a time chunk shares the time part's file.
/// - A part that repeats several earlier ones takes the file of the first chain that begins with
///   the same chunk, even if a later chain is the one that matches. So make sure that signals with
///   equal first chunks are equal altogether.
/// - A part that stops repeating copies the rows it shared so far into its own file. The file it
///   shared must be finished then; otherwise the call throws and that file is lost to its owner.
/// - The copied rows are found by the bounds of the chunks, which drift by one row per chunk: of a
///   shared start of several chunks, all but the first are copied from later rows than theirs.
/// - A chunk that an earlier part appends after its last one was matched comes too late: of equal
///   signals that append in turns, the second stops repeating at its second chunk.
/// - Shared files are not counted: resetData() or destruction of one signal deletes the file that
///   another one shares. What is known of deleted chunks is not forgotten, not even by a pool's
///   reset(): a signal that repeats them is handed the id of a file that is gone.
/// - The single double -1 stands for the end of a part, and a chunk of it is taken for that.
/// - A chunk without bytes has no rows, even if sizes list empty samples.
/// - Reading a part whose file is still open throws and loses the file: finish() first. A read
///   drops the rows that wait in the part's memory.
/// - Rows appended after finish() stay in memory until a batch is due, and then fail.
/// - Failed writes are silent: ask writeStatus().
class KYR_PARQUET_EXPORT StreamableSignal {
 public:
  enum class SignalPart : char { time = 0, data = 1 };

  virtual ~StreamableSignal();

  /// \brief Rows per batch of both parts, from the next append on.
  ///
  /// A pool without SafeStorage begins with 100,000,000 rows, one with it with
  /// SafeStorage::batchRows.
  /// \throws std::invalid_argument for 0
  virtual void setBufferSize(unsigned long rows) = 0;

  /// \brief Append \p count rows to the time part.
  /// \param time  \p count sample times [s], in any order; copied before the call returns
  /// \throws std::invalid_argument "Time is empty" for a null pointer; nothing is appended
  /// \throws std::runtime_error, ::parquet::ParquetStatusException  naming a file that cannot be
  ///         created, read or, with SafeStorage, written
  virtual void appendTime(const double* time, unsigned long count) = 0;

  /// \brief Append samples of the signal's data type and category to the data part.
  ///
  /// \param data  the samples' elements back to back, in the host's order (column-major for
  ///         matrices); copied before the call returns
  /// \param size  bytes at \p data
  /// \param dimensions  empty for scalars; one entry for samples that all have this shape; else one
  ///         entry per sample. A category with variable dimensions takes one entry per sample
  /// \param extra  for samples of bytes: the number of bytes of each sample; else ignored
  /// \throws std::invalid_argument "Data is empty" for a null pointer, or if the samples do not fit
  ///         the category and type, or if the shapes ask for more than \p size; nothing is appended
  /// \throws std::runtime_error "Null data type encountered." or "Unknown data type encountered.";
  ///         nothing is appended
  /// \throws std::runtime_error, ::parquet::ParquetStatusException  as appendTime()
  virtual void appendData(const void* data, unsigned long size,
                          const std::vector<std::vector<unsigned long>>& dimensions,
                          const std::vector<int>& extra) = 0;

  /// \brief Write the rest of a part's rows and complete its file. Does nothing for an empty part,
  /// for a finished one, and for any other value than the two parts.
  /// \throws std::runtime_error, ::parquet::ParquetStatusException  as appendTime()
  virtual void finish(SignalPart part) = 0;
  /// \brief Finish the time part, then the data part.
  virtual void finish() = 0;

  /// \brief Release the signal's files and drop its rows. Both parts are empty afterwards, also
  /// when it throws; type, category, codec and buffer size stay.
  virtual void resetData() = 0;

  /// \brief Whether either part has a file, or data waits in memory.
  virtual bool hasData() const = 0;

  virtual void setDataType(KYRSignalDataType type) = 0;
  virtual KYRSignalDataType getDataType() const = 0;
  virtual void setCategory(KYRSignalCategory category) = 0;
  virtual KYRSignalCategory getCategory() const = 0;

  /// \brief Storage id of a part, -554114 for none; -1 for any other value than the two parts.
  virtual int getStorageId(SignalPart part) const = 0;

  /// \brief Replace \p out by the times [s] of rows [\p from, \p to), 8 bytes each.
  ///
  /// Rows beyond the last one are left out. \p out comes back empty if the part has no file (with
  /// SafeStorage: no rows) or if \p from lies beyond its end. Its memory is used again.
  /// \throws std::runtime_error, ::parquet::ParquetStatusException  naming a file that cannot be
  ///         read
  virtual void getTime(unsigned long from, unsigned long to, std::vector<char>& out) = 0;

  /// \brief Replace \p out by the elements of samples [\p from, \p to), as bytes in the order in
  /// which they were appended. Rows beyond the last one are left out, as in getTime().
  /// \param dimensions  replaced by one entry per sample if the shapes are stored (variable
  ///         dimensions), else left as it is
  /// \throws std::runtime_error, ::parquet::ParquetStatusException  naming a file that cannot be
  ///         read
  virtual void getData(unsigned long from, unsigned long to, std::vector<char>& out,
                       std::vector<std::vector<unsigned long>>& dimensions) = 0;

  /// \brief Codec of the files that this signal creates from now on. Until it is set, that of the
  /// process-wide options as they were when the pool was given its directory.
  virtual void setParquetCompressionType(const ::arrow::Compression::type& type) = 0;
  virtual std::optional<::arrow::Compression::type> getParquetCompressionType() const = 0;

  /// \brief Do what the other getData() does, and tell the size of each sample.
  /// \param sizes  replaced: per sample its bytes (samples of bytes) or its elements (matrices);
  ///         empty for scalars
  virtual void getData(unsigned long from, unsigned long to, std::vector<char>& out,
                       std::vector<std::vector<unsigned long>>& dimensions,
                       std::vector<int>& sizes) = 0;

  /// \brief The directory of the signal's files.
  virtual Path getParquetDirectory() const = 0;

  /// \brief Rows of a part that were appended so far; 0 for any other value than the two parts.
  ///
  /// Without SafeStorage, the rows that the part wrote itself and those in memory.
  /// \throws std::exception  naming the file, if the part's file cannot be opened
  virtual unsigned long rowCount(SignalPart part) = 0;

  /// \brief Bring all rows to disk, in a file that is complete, and go on. Needs SafeStorage.
  ///
  /// When the call returns, a crash of the process costs none of the rows; with a SafeStorage that
  /// syncs, neither does one of the machine.
  /// \throws std::logic_error in a pool without SafeStorage: its files are complete once finished
  /// \throws std::exception naming the file if it cannot be written; no row is lost, and the call
  ///         may be repeated
  virtual void flush() = 0;

  /// \brief The first failure among the writes of this signal's files, OK if there was none.
  ///
  /// With SafeStorage it is always OK, because failures are thrown.
  virtual ::arrow::Status writeStatus() const = 0;
};

}  // namespace kyr::parquet
