#pragma once

#include <arrow/type_fwd.h>
#include <parquet/arrow/reader.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// Takes a time into a span, unless it is NaN.
void noteTime(std::optional<TimeSpan>& span, double time);

/// A numbered Parquet file of a storage directory, opened to look at: rows, columns, and columns
/// read one row group at a time. Failures are std::runtime_error naming the file.
class StoredFile {
 public:
  explicit StoredFile(std::filesystem::path path);
  /// Rows [first, first + count) of a pack, as if they were a file of their own.
  StoredFile(std::filesystem::path pack, std::uint64_t first, std::uint64_t count);

  std::uint64_t rowCount() const { return count_; }
  const std::shared_ptr<::arrow::Schema>& schema() const { return schema_; }
  bool hasColumn(const std::string& name) const;

  /// A key-value pair of the file's metadata; empty if there is none of that key.
  std::optional<std::string> metadata(const std::string& key) const;

  /// Codec of the column's chunks, "uncompressed" for none.
  std::string compression(const std::string& column) const;

  /// Smallest and largest value of a float64 column, NaN left out; empty without values.
  std::optional<TimeSpan> span(const std::string& column) const;

  /// Calls \p visit with the named columns of each row group in turn.
  void forEachRowGroup(
      const std::vector<std::string>& columns,
      const std::function<void(const std::vector<std::shared_ptr<::arrow::ChunkedArray>>&)>& visit)
      const;

 private:
  void check(const ::arrow::Status& status) const;

  std::filesystem::path path_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
  std::shared_ptr<::arrow::Schema> schema_;
  std::uint64_t first_ = 0;
  std::uint64_t count_ = 0;
};

}  // namespace kyr::recording
