#pragma once

#include <arrow/type_fwd.h>
#include <parquet/arrow/reader.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// A column of a recording's Parquet file.
struct StoredColumn {
  int storageId = 0;
  std::string name;

  friend bool operator<(const StoredColumn& a, const StoredColumn& b) {
    return std::tie(a.storageId, a.name) < std::tie(b.storageId, b.name);
  }
};

/// Rows [first, first + count) of a pack, which belong to a storage id.
struct PackedSlice {
  int storageId = 0;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

/// Reads a column slice by slice; no more of the file is in memory than a page and a slice.
class ColumnReader {
 public:
  /// \param packed  of a pack, the rows to read; all unless given
  ColumnReader(std::string file, std::unique_ptr<::parquet::arrow::FileReader> reader,
               const std::string& column, std::optional<PackedSlice> packed);

  const std::shared_ptr<::arrow::DataType>& type() const { return type_; }

  /// The next rows, without nulls; empty at the end.
  /// \throws std::runtime_error naming the file, Interrupted
  std::shared_ptr<::arrow::Array> next();

 private:
  // Those of a batch that are asked for.
  std::shared_ptr<::arrow::RecordBatch> packedRows(const ::arrow::RecordBatch& batch);

  std::string file_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
  std::unique_ptr<::arrow::RecordBatchReader> batches_;
  std::shared_ptr<::arrow::DataType> type_;
  std::optional<PackedSlice> packed_;
  std::uint64_t row_ = 0;  // that comes next, of the file
};

/// The files of a saved recording, read where they lie.
///
/// Each is compared with its size and checksum before it is read for the first time. Errors are
/// std::runtime_error naming the file.
class RecordingFiles {
 public:
  RecordingFiles(std::string folder, const recording::RecordingInfo& info);

  /// Where the times of a signal with samples are; empty if there are none.
  std::optional<StoredColumn> timeOf(const recording::SignalInfo& signal) const;
  StoredColumn dataOf(const recording::SignalInfo& signal) const;

  std::uint64_t rowsOf(const StoredColumn& column) const;
  bool hasColumn(const StoredColumn& column) const;

  ColumnReader open(const StoredColumn& column);

  /// \throws std::runtime_error if the column is no float64
  ColumnReader openTimes(const StoredColumn& column);

  /// \throws std::runtime_error if the samples are of another type than the signal's
  ColumnReader openData(const recording::SignalInfo& signal);

  std::vector<double> readTimes(const StoredColumn& column);
  std::shared_ptr<::arrow::Array> readColumn(const StoredColumn& column);
  std::shared_ptr<::arrow::Array> readData(const recording::SignalInfo& signal);

 private:
  std::string pathOf(int storageId) const;
  const recording::FileInfo& fileInfo(int storageId) const;
  std::unique_ptr<::parquet::arrow::FileReader> openFile(int storageId, bool compares) const;

  std::string folder_;
  std::map<int, recording::FileInfo> files_;
  std::map<int, recording::PackInfo> packs_;
  std::set<std::string> compared_;  // paths
};

}  // namespace kyr::tool
