#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

/// Samples as Arrow columns and back. The builders wrap the caller's memory: what they return must
/// not outlive it.
namespace kyr::parquet::typedColumns {

using Dimensions = std::vector<std::vector<std::size_t>>;
using ArrayPtr = std::shared_ptr<::arrow::Array>;

/// A flat column of \p count elements of \p type.
ArrayPtr wrapNumeric(const std::shared_ptr<::arrow::DataType>& type, const void* values,
                     std::size_t count);

/// A binary column of `offsets.size() - 1` rows.
ArrayPtr wrapBinary(const std::vector<char>& data, const std::vector<int>& offsets);

/// The list column of dimension vectors; owns its memory.
ArrayPtr dimensionColumn(const Dimensions& dimensions);

/// Append the bytes of a binary column to \p data and replace \p offsets, which continue over all
/// chunks from the size that \p data had.
void appendBlobs(const ::arrow::ChunkedArray& column, std::vector<char>& data,
                 std::vector<int>& offsets);

/// A stored table with the file it came from, to take its columns apart. Presence of a column is
/// told by its name, the column itself is taken by position: time (if there is one), data,
/// dimension. Every error is a std::runtime_error naming the file.
class StoredTable {
 public:
  StoredTable(std::string file, std::shared_ptr<::arrow::Table> table, bool withTime);

  bool hasData() const;

  /// Replace \p time; it comes back empty when there is no time column.
  void readTime(std::vector<double>& time) const;

  /// Replace \p values by the elements of the flat or list column "data" of \p type, and
  /// \p offsets by the rows' element offsets (empty for a flat column). T is the element type, or
  /// char for the elements' bytes.
  template <typename T>
  void readValues(const std::shared_ptr<::arrow::DataType>& type, std::vector<T>& values,
                  std::vector<int>& offsets) const;

  void readBlobs(std::vector<char>& data, std::vector<int>& offsets) const;

  /// Replace \p dimensions if there is a dimension column.
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
