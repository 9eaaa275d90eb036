#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

/// Samples as Arrow columns, and back. The builders wrap the caller's memory, which must outlive
/// what they return.
namespace kyr::parquet::typedColumns {

using Dimensions = std::vector<std::vector<std::size_t>>;
using ArrayPtr = std::shared_ptr<::arrow::Array>;

/// \throws std::invalid_argument if the schema is empty
void checkSchema(const std::shared_ptr<::arrow::Schema>& schema);
/// \throws std::invalid_argument if the offsets are empty or do not ascend within \p size bytes
void checkBlobOffsets(const std::vector<int>& offsets, std::size_t size);

/// A flat column of \p count elements of \p type.
ArrayPtr wrapNumeric(const std::shared_ptr<::arrow::DataType>& type, const void* values,
                     std::size_t count);

/// A binary column of `offsets.size() - 1` rows.
ArrayPtr wrapBinary(const std::vector<char>& data, const std::vector<int>& offsets);

/// The list column of dimension vectors. It owns its memory.
ArrayPtr dimensionColumn(const Dimensions& dimensions);

/// Appends the bytes of a binary column to \p data and replaces \p offsets. The offsets start at
/// the size that \p data had and continue over all chunks.
void appendBlobs(const ::arrow::ChunkedArray& column, std::vector<char>& data,
                 std::vector<int>& offsets);

/// A table that was read from a file, to take its columns apart. A column exists if the table has
/// its name, but it is taken by position: time (if it exists), data, dimension. Every error is a
/// std::runtime_error naming the file.
class StoredTable {
 public:
  StoredTable(std::string file, std::shared_ptr<::arrow::Table> table, bool withTime);

  bool hasData() const;

  /// Replaces \p time, by nothing if there is no time column.
  void readTime(std::vector<double>& time) const;

  /// Replaces \p values by the elements of the flat or list column "data" of \p type, and \p
  /// offsets by the offsets of the rows in elements (empty for a flat column). T is the element
  /// type, or char for the bytes of the elements.
  template <typename T>
  void readValues(const std::shared_ptr<::arrow::DataType>& type, std::vector<T>& values,
                  std::vector<int>& offsets) const;

  void readBlobs(std::vector<char>& data, std::vector<int>& offsets) const;

  /// Replaces \p dimensions if there is a dimension column.
  void readDimensions(Dimensions& dimensions) const;

 private:
  const ::arrow::ChunkedArray& columnAt(int position, const std::string& name) const;
  [[noreturn]] void fail(const std::string& what) const;
  [[noreturn]] void failType(const ::arrow::ChunkedArray& column, const std::string& name,
                             const std::string& expected) const;

  std::string file_;
  std::shared_ptr<::arrow::Table> table_;
  int dataPosition_ = 0;
};

}  // namespace kyr::parquet::typedColumns
