#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief The numbered Parquet files of one storage directory.
///
/// Each stored table is one file, named by its storage id in decimal, without extension. The worker
/// hands out the ids, counts the references of each, writes, reads and deletes the files, and keeps
/// an index of content hashes so that equal content shares one file. Its lifetime is that of the
/// files: the destructor deletes every file the worker knows, including those that were in the
/// directory when it was opened. The directory itself stays.
///
/// Hosts and recordings rely on these rules:
///
/// - A file found on disk counts no reference until it is checked out; the first remove() deletes
///   it. An allocated id counts one.
/// - Opening a directory sets the next id to the largest one found, not to one past it: the next
///   write goes to that same file.
/// - Files are opened for appending, and Parquet cannot append: a write to an id whose file already
///   holds bytes leaves those bytes alone and is lost.
/// - A failed write reports nothing by itself: the id stays allocated. Ask lastWriteStatus() or
///   writeStatus().
/// - A file that cannot be opened at all stops the process.
///
/// One thread at a time. Not copyable.
class KYR_PARQUET_EXPORT ParquetSerializerWorker {
 public:
  using Compression = std::optional<::arrow::Compression::type>;
  using Dimensions = std::vector<std::vector<std::size_t>>;
  using FieldAndArray = std::pair<std::shared_ptr<::arrow::Field>, std::shared_ptr<::arrow::Array>>;

  /// \brief A worker without a directory; no disk access. Call setParquetDirectory() before use.
  ParquetSerializerWorker();

  /// \brief A worker over \p directory; see setParquetDirectory().
  explicit ParquetSerializerWorker(const Path& directory);

  /// \brief Delete every known file. An exception while doing so ends the process.
  ~ParquetSerializerWorker();

  ParquetSerializerWorker(const ParquetSerializerWorker&) = delete;
  ParquetSerializerWorker& operator=(const ParquetSerializerWorker&) = delete;

  /// \brief Set the directory and take its files into the index. It can be set once; setting the
  /// same one again rescans it.
  /// \throws std::runtime_error "Parquet directory cannot be changed!" for a different directory
  /// \throws std::invalid_argument, std::out_of_range  see updateChunkIndex()
  void setParquetDirectory(const Path& directory);
  Path parquetDirectory() const;

  /// \brief Whether no id is known. The disk is not consulted.
  bool isParquetDirectoryEmpty() const;

  /// \brief Does nothing; the typed time-plus-data writers call it before every write.
  void assertHasParquetDirectory() const;

  /// \brief Take the ids of the directory's entries into the index, known ids keeping their count.
  ///
  /// The id is the number that the entry's name begins with ("12.tmp" counts as 12); an entry's
  /// type and content are not looked at. A missing directory is no error.
  /// \throws std::invalid_argument if a name does not begin with a number
  /// \throws std::out_of_range if that number is no 32-bit integer
  void updateChunkIndex();

  /// \brief Allocate an id, with one reference.
  int getNextParquetStorageId();

  /// \brief The largest known id; -2147483648 when none is known.
  int getLastAllocatedParquetStorageID();

  /// \brief Whether \p id is known (not whether its file exists).
  bool checkDataChunkExists(const int& id) const;

  /// \brief Add a reference to a known id.
  /// \throws std::out_of_range naming the id if it is not known
  void checkoutParquetFile(const int& id);

  /// \brief Release one reference; the last one deletes the file. Unknown ids are ignored.
  void remove(const int& id);

  /// \brief Delete the file and forget the id and its content; nothing if there is no file.
  ///
  /// If \p id is the next id to be allocated, the largest id left becomes the next one, or
  /// -2147483648 if none is left.
  void removeHelper(const int& id);

  /// \brief Write \p table to the file of a new id.
  /// \param compression  codec of all columns; empty for that of the process-wide options as they
  ///         were when the worker was made
  /// \return the new id, also when the write failed: see lastWriteStatus()
  int write(const ::arrow::Table& table, const Compression& compression);

  /// \brief Write \p table to the file of \p id as one row group. Tables of more than 1,048,576
  /// rows, Parquet's own limit, get several.
  void writeHelper(const ::arrow::Table& table, int id, const Compression& compression);

  /// \brief Read the whole file of \p id into \p table.
  ///
  /// A file that is no valid Parquet file is no error here: \p table is what the reader left. The
  /// typed readers below report it.
  /// \throws std::runtime_error "<path> does not exists." if there is no file
  void read(const int& id, std::shared_ptr<::arrow::Table>& table) const;
  std::shared_ptr<::arrow::Table> read(const int& id) const;

  /// \brief Status of the latest write, which the write itself did not report. OK before the first.
  ::arrow::Status lastWriteStatus() const;

  /// \brief Status of the write of \p id; OK for files found on disk and for unknown ids.
  ::arrow::Status writeStatus(const int& id) const;

  /// \brief The id of the file that holds this content, or a new one.
  ///
  /// Content is the element type, the values, and the values of the dimension vectors in order (how
  /// they are grouped into vectors does not count). It is told apart by a 64-bit hash alone, which
  /// is weak for short columns of small integers: the two samples (1, 0) and (0, 67) count as
  /// equal, and so do -0 and 0. Compare what you read back where that matters. A duplicate adds one
  /// to the id's count.
  ///
  /// \param isDuplicate  set to whether the content was known
  template <typename T>
  int getStorageIdForContent(const std::vector<T>& data, const Dimensions& dimensions,
                             bool& isDuplicate);

  /// \name Typed columns
  ///
  /// Instances exist for double, float, char (an int8 column), unsigned char, short, unsigned
  /// short, int, unsigned int, long long and unsigned long long. Spell the type out:
  /// `writeBinaryArray<char>(...)` is the typed form, `writeBinaryArray(...)` with a
  /// `std::vector<char>` the byte form below.
  ///
  /// `offsets` count elements. There is one more of them than rows, and they make "data" a list
  /// column; empty offsets make it a flat one. A "dimension" column is written for two dimension
  /// vectors or more. Times are in seconds. Values are read during the call and not kept.
  ///
  /// Writers throw std::invalid_argument, before anything is allocated or written, if the schema is
  /// empty or the offsets do not ascend within the values. Readers throw std::runtime_error naming
  /// the file if it is missing, is no valid Parquet file, or holds other columns than asked for.
  /// @{

  /// \brief Store values; equal content is stored once and its id returned again.
  template <typename T>
  int writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema, const std::vector<T>& values,
                       const std::vector<int>& offsets, const Dimensions& dimensions,
                       const Compression& compression);

  /// \brief Store \p count values at \p values, which need not be aligned.
  template <typename T>
  int writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema, const T* values,
                       std::size_t count, const std::vector<int>& offsets,
                       const Dimensions& dimensions, const Compression& compression);

  /// \brief Store time and values in one new file, never shared.
  template <typename T>
  int writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                       const std::vector<double>& time, const std::vector<T>& values,
                       const std::vector<int>& offsets, const Dimensions& dimensions,
                       const Compression& compression);
  template <typename T>
  int writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                       const std::vector<double>& time, const T* values, std::size_t count,
                       const std::vector<int>& offsets, const Dimensions& dimensions,
                       const Compression& compression);

  /// \brief Read values; \p offsets comes back empty for a flat column.
  /// \param dimensions  replaced if the file has a "dimension" column, else left as it is
  template <typename T>
  void readBinaryArray(const int& id, std::vector<T>& values, std::vector<int>& offsets,
                       Dimensions& dimensions) const;
  template <typename T>
  void readBinaryArray(const int& id, std::vector<double>& time, std::vector<T>& values,
                       std::vector<int>& offsets, Dimensions& dimensions) const;

  /// \brief Read values as readBinaryArray() does, as their bytes in memory order.
  template <typename T>
  void readBytes(const int& id, std::vector<char>& bytes, std::vector<int>& offsets,
                 Dimensions& dimensions) const;
  template <typename T>
  void readBytes(const int& id, std::vector<double>& time, std::vector<char>& bytes,
                 std::vector<int>& offsets, Dimensions& dimensions) const;
  /// @}

  /// \name Byte columns
  ///
  /// One blob per row in a binary "data" column: row i is bytes `offsets[i]` up to, not including,
  /// `offsets[i + 1]`. Every write makes a new file. Errors are those of typed columns; empty
  /// offsets are invalid.
  /// @{
  int writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                       const std::vector<char>& data, const std::vector<int>& offsets,
                       const Dimensions& dimensions, const Compression& compression);
  int writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                       const std::vector<double>& time, const std::vector<char>& data,
                       const std::vector<int>& offsets, const Dimensions& dimensions,
                       const Compression& compression);

  /// \brief Read blobs; outputs whose column the file does not have are left as they are.
  void readBinaryArray(const int& id, std::vector<char>& data, std::vector<int>& offsets,
                       Dimensions& dimensions) const;
  void readBinaryArray(const int& id, std::vector<double>& time, std::vector<char>& data,
                       std::vector<int>& offsets, Dimensions& dimensions) const;
  /// @}

  /// \name Building blocks
  /// @{

  /// \brief A nullable binary field and an array of `offsets.size() - 1` rows, both copies.
  /// \throws std::invalid_argument if the offsets are empty or do not ascend within the data
  static FieldAndArray binaryArrayBuildHelper(const std::string& name,
                                              const std::vector<char>& data,
                                              const std::vector<int>& offsets);

  /// \brief Dimension vectors as one run of values and the offsets of each vector in it.
  static std::pair<std::vector<std::size_t>, std::vector<int>> buildDimensionArrayDataAndOffset(
      const Dimensions& dimensions);

  /// \brief Inverse of buildDimensionArrayDataAndOffset().
  static Dimensions reconstructDimensionArray(const std::vector<std::size_t>& values,
                                              const std::vector<int>& offsets);

  /// \brief A nullable list field and its array; Arrow refusing the two stops the process.
  static FieldAndArray listArrayBuildHelper(const std::string& name,
                                            std::shared_ptr<::arrow::Array>& offsets,
                                            std::shared_ptr<::arrow::Array>& values);

  /// \brief A table of \p arrays, in order, under \p schema; the two are not compared here.
  /// \throws std::invalid_argument if the schema is empty
  static std::shared_ptr<::arrow::Table> tableBuildHelper(
      const std::shared_ptr<::arrow::Schema>& schema,
      const std::vector<std::shared_ptr<::arrow::Array>>& arrays);

  /// \brief Append the bytes of a binary column to \p data and replace \p offsets.
  ///
  /// The offsets start at the size that \p data had and continue over all chunks.
  static void extractDataFromBinaryArray(const std::shared_ptr<::arrow::ChunkedArray>& column,
                                         const std::shared_ptr<::arrow::Field>& field,
                                         std::vector<char>& data, std::vector<int>& offsets);
  /// @}

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::parquet
