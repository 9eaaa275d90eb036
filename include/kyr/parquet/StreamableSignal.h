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

/// \brief A recorded signal whose samples arrive in pieces while a simulation runs.
///
/// Time and data are two parts, each appended on its own. Each chunk is compared with the chunks of
/// earlier signals of the pool: as long as a part repeats an earlier one from its start, it shares
/// that file and stores nothing. From the first difference on it has a file of its own: rows gather
/// in memory and go to disk in batches of setBufferSize() rows, one row group each, and finish()
/// writes the rest. The type is `Double` and the category `Scalar` unless set; set them before the
/// first append. Destroying the signal does what resetData() does, quietly.
///
/// What a caller must know, because hosts rely on these rules:
///
/// - Chunks are compared, not rows: equal rows in chunks of other sizes are not recognised.
///   Equality is decided by a 64-bit hash.
/// - A data chunk of doubles equal to a time chunk shares the time part's file.
/// - A part that repeats several earlier ones takes the file of the first chain that begins with
///   the same chunk, also where a later chain is the one that matches. Append signals whose first
///   chunks are equal only if all their chunks are.
/// - A part that stops repeating copies the rows it shared so far into its own file. The file it
///   shared must be finished then; otherwise the call throws and that file is lost to its owner.
/// - Shared files are not counted: resetData() or destruction of one signal deletes the file that
///   another shares. What is known of deleted chunks is not forgotten, also across a pool's
///   reset(): a signal that repeats them is handed the id of a file that is gone.
/// - Copied rows are found by the bounds of the chunks, which drift by one row per chunk: of a
///   shared start of several chunks all but the first are copied from later rows than theirs.
/// - What an earlier part appends after a chunk has matched it comes too late for the next chunk:
///   of equal signals that append in turns the second stops repeating at its second chunk.
/// - Category, shapes and sizes are not compared: equal bytes share the first signal's.
/// - The single double -1 stands for the end of a part; a chunk of it is taken for that.
/// - A chunk without bytes has no rows, also where sizes list empty samples.
/// - Reading a part whose file is still open throws and loses the file: finish() first.
/// - Rows appended after finish() stay in memory until a batch is due, and then fail.
/// - Failed writes are silent; ask writeStatus().
///
/// One thread at a time, the pool's other signals included.
class KYR_PARQUET_EXPORT StreamableSignal {
 public:
  enum class SignalPart : char { time = 0, data = 1 };

  virtual ~StreamableSignal();

  /// \brief Rows per batch of both parts, from the next append on.
  /// \throws std::invalid_argument for 0
  virtual void setBufferSize(unsigned long rows) = 0;

  /// \brief Append \p count sample times [s]; copied before the call returns.
  /// \throws std::invalid_argument "Time is empty" for a null pointer
  /// \throws std::runtime_error, parquet::ParquetStatusException  from the files: see the notes
  ///         above
  virtual void appendTime(const double* time, unsigned long count) = 0;

  /// \brief Append samples of the signal's data type; copied before the call returns.
  ///
  /// \param size  bytes at \p data
  /// \param dimensions  empty for scalars; one entry for samples that all have this shape; else one
  ///         entry per sample
  /// \param extra  for binary samples: bytes of each
  /// \throws std::invalid_argument "Data is empty" for a null pointer; if the samples do not fit
  ///         the category and type, or the shapes ask for more than \p size; nothing is appended
  /// \throws std::runtime_error, parquet::ParquetStatusException  from the files: see the notes
  ///         above
  virtual void appendData(const void* data, unsigned long size,
                          const std::vector<std::vector<unsigned long>>& dimensions,
                          const std::vector<int>& extra) = 0;

  /// \brief Write the rest of a part's rows and close its file; again, or for an empty part,
  /// nothing.
  virtual void finish(SignalPart part) = 0;
  /// \brief Finish time, then data.
  virtual void finish() = 0;

  /// \brief Delete the signal's files and rows; it is as good as new afterwards.
  virtual void resetData() = 0;

  /// \brief Whether either part has a file, or data waits in memory.
  virtual bool hasData() const = 0;

  virtual void setDataType(KYRSignalDataType type) = 0;
  virtual KYRSignalDataType getDataType() const = 0;
  virtual void setCategory(KYRSignalCategory category) = 0;
  virtual KYRSignalCategory getCategory() const = 0;

  /// \brief Storage id of a part, -554114 for none; -1 for any other value than the two parts.
  virtual int getStorageId(SignalPart part) const = 0;

  /// \brief Replace \p out by the times of rows [\p from, \p to) as bytes of doubles; empty without
  /// a file or beyond its end.
  ///
  /// Rows that wait in the part's memory are dropped by the read: finish() first.
  virtual void getTime(unsigned long from, unsigned long to, std::vector<char>& out) = 0;

  /// \brief Replace \p out by the elements of samples [\p from, \p to).
  /// \param dimensions  replaced if the file has shapes (variable dimensions), else left as it is
  virtual void getData(unsigned long from, unsigned long to, std::vector<char>& out,
                       std::vector<std::vector<unsigned long>>& dimensions) = 0;

  /// \brief Codec of this signal's files; until it is set, that of the pool's writer.
  virtual void setParquetCompressionType(const ::arrow::Compression::type& type) = 0;
  virtual std::optional<::arrow::Compression::type> getParquetCompressionType() const = 0;

  /// \brief As getData, with the size of each sample in bytes (binary) or elements (dimensioned);
  /// \p sizes comes back empty for scalars.
  virtual void getData(unsigned long from, unsigned long to, std::vector<char>& out,
                       std::vector<std::vector<unsigned long>>& dimensions,
                       std::vector<int>& sizes) = 0;

  /// \brief The directory of the signal's files.
  virtual Path getParquetDirectory() const = 0;

  /// \brief Rows of a part that were appended so far; 0 for any other value than the two parts.
  ///
  /// Without SafeStorage, those that the part wrote itself, and those in memory.
  /// \throws std::exception  naming the file, if the part is over one that cannot be opened
  virtual unsigned long rowCount(SignalPart part) = 0;

  /// \brief Bring all rows to disk, in a file that is complete, and go on. Needs a safe pool.
  ///
  /// When the call returns, a crash of the process costs none of the rows; with a SafeStorage that
  /// syncs, neither does one of the machine.
  /// \throws std::logic_error in a pool without SafeStorage: its files are complete once finished
  /// \throws std::exception naming the file if it cannot be written; no row is lost, and the call
  ///         may be repeated
  virtual void flush() = 0;

  /// \brief The first failure among the writes of this signal's files, OK if there was none.
  virtual ::arrow::Status writeStatus() const = 0;
};

}  // namespace kyr::parquet
