#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief Parquet files of one storage directory that grow row group by row group.
///
/// Each file has a storage id. It is created with a schema, written any number of times, closed,
/// and then read by row range any number of times. Each write adds one row group, or several if the
/// table has more than 1,048,576 rows, Parquet's limit. The destructor deletes every file that the
/// writer knows, including those that it found in the directory, unless preserveDirectory() says
/// otherwise; the directory itself stays.
///
/// Hosts and recordings rely on these rules:
///
/// - A failed table write or close reports nothing by itself; ask lastWriteStatus() or
///   writeStatus().
/// - When write(), close() or read() throws, the file's handle is gone and its id is lost: every
///   later use of the id throws. Reading a file that is still open for writing is such a case.
/// - Range reads find rows by a walk that counts the first row group twice and takes every later
///   size one step late. It is exact when all row groups but the last have the same length, as
///   streamed batches have; rows of a file with other groups come back shifted.
/// - Ids grow and are not reused.
///
/// Every member that takes an id throws std::out_of_range for one that the writer does not know,
/// and for a lost one; only remove() accepts a lost id. A file that cannot be opened is a
/// ::parquet::ParquetStatusException.
///
/// One thread at a time. Not copyable.
class KYR_PARQUET_EXPORT StreamableWriter {
 public:
  using Compression = std::optional<::arrow::Compression::type>;

  /// \brief A writer over the process's current directory, adopting the Parquet files there.
  StreamableWriter();

  /// \brief A writer over \p directory; see setParquetDirectory().
  explicit StreamableWriter(const Path& directory);

  /// \brief Close and delete every file; failures are ignored.
  ~StreamableWriter();

  StreamableWriter(const StreamableWriter&) = delete;
  StreamableWriter& operator=(const StreamableWriter&) = delete;

  /// \brief Set the directory and adopt its Parquet files. It can be set once; setting the same one
  /// again adopts new files.
  ///
  /// Files are recognised by their first bytes. One whose name begins with a number gets that id,
  /// the others the ids after the largest. Adopted files can be read, not written. A missing
  /// directory is no error.
  /// \throws std::runtime_error "Parquet directory cannot be changed!" for a different directory
  void setParquetDirectory(const Path& directory);
  Path parquetDirectory() const;

  /// \brief Whether no file is known. The disk is not consulted.
  bool isParquetDirectoryEmpty() const;

  /// \brief Create (or truncate) the file of a new id, open for writing.
  /// \param compression  codec of all columns; empty for that of the process-wide options as they
  ///         were when the writer was made
  int create(const ::arrow::Schema& schema, const Compression& compression);

  /// \brief Create a file that is called \p name; the id has nothing to do with the name.
  int create(const std::string& name, const ::arrow::Schema& schema,
             const Compression& compression);

  /// \brief Append \p table to an open file.
  /// \throws std::runtime_error "File is not opened." (closed), "Only parquet file writer is
  ///         accepted in write()." (open for reading), "Parquet schema mismatch."; the id is lost
  ///         then
  void write(int id, const ::arrow::Table& table);

  /// \brief Close the file: write its footer, or close its reader. Closing again is no error.
  void close(const int& id);

  /// \brief Rows [\p from, \p to) of a closed file, reading only the row groups around them.
  ///
  /// \p to beyond the end means the end. 0 and the largest unsigned long read the whole file.
  /// \return an empty pointer if \p from lies beyond the end
  /// \throws std::runtime_error "File is still open for writing."; the id is lost then
  /// \throws std::range_error if the walk over unequal row groups leads past the rows it read
  std::shared_ptr<::arrow::Table> read(int id, unsigned long from, unsigned long to);

  /// \brief Append rows [\p from, \p to) of \p src to \p dst, which is open for writing.
  ///
  /// A range that ends beyond the source is cut there; one that begins beyond it appends nothing.
  void clone(int src, int dst, unsigned long from, unsigned long to);

  /// \brief Forget the id and delete its file, open or not. The file of a lost id stays.
  void remove(const int& id);

  /// \brief Name of the id's file, without its directory.
  std::string getFileName(int id);

  /// \brief Every known id, in no order.
  std::vector<int> getAllParquetStorageIDs();

  /// \brief Whether the id is known (not whether its file exists).
  bool checkDataChunkExists(int id) const;

  /// \brief Whether the destructor leaves the files on disk. Initially it does not.
  void preserveDirectory(bool preserve);

  /// \brief Status of the latest table write or writer close, which they did not report.
  ::arrow::Status lastWriteStatus() const;

  /// \brief The first failure among the writes and closes of \p id, OK if there was none.
  ::arrow::Status writeStatus(int id) const;

 private:
  friend class StreamableSignalImpl;
  using RowRange = std::pair<unsigned long, unsigned long>;

  // Clones one range after the other until \p next returns none. Row groups that neighbouring
  // ranges share are read once.
  void cloneEach(int src, int dst, const std::function<std::optional<RowRange>()>& next);

  // Replaces \p out by the elements of the rows that read() returns, without making a table.
  // Returns whether the file allows that; if not, the content of \p out is undefined.
  bool readElements(int id, unsigned long from, unsigned long to, std::vector<char>& out);

  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::parquet
