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

/// A column of a Parquet file of a recording.
struct StoredColumn {
  int storageId = 0;
  std::string name;

  friend bool operator<(const StoredColumn& a, const StoredColumn& b) {
    return std::tie(a.storageId, a.name) < std::tie(b.storageId, b.name);
  }
};

/// Rows [first, first + count) of a pack, which hold the content of a storage id.
struct PackedSlice {
  int storageId = 0;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

/// Reads a column slice by slice. Only a page and a slice of the file are in memory.
class ColumnReader {
 public:
  /// \param packed  the rows to read if the file is a pack
  ColumnReader(std::string file, std::unique_ptr<::parquet::arrow::FileReader> reader,
               const std::string& column, std::optional<PackedSlice> packed);

  const std::shared_ptr<::arrow::DataType>& type() const { return type_; }

  /// The next rows, without nulls; an empty slice at the end.
  /// \throws std::runtime_error naming the file, Interrupted
  std::shared_ptr<::arrow::Array> next();

 private:
  // The part of a batch that belongs to the rows to read.
  std::shared_ptr<::arrow::RecordBatch> packedRows(const ::arrow::RecordBatch& batch);

  std::string file_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
  std::unique_ptr<::arrow::RecordBatchReader> batches_;
  std::shared_ptr<::arrow::DataType> type_;
  std::optional<PackedSlice> packed_;
  std::uint64_t row_ = 0;  // next row of the file
};

/// The files of a saved recording.
///
/// Before a file is read for the first time, its size and checksum are compared. Errors are
/// std::runtime_error that name the file.
class RecordingFiles {
 public:
  RecordingFiles(std::string folder, const recording::RecordingInfo& info);

  /// The column with the times of a signal that has samples; empty if it has no times.
  std::optional<StoredColumn> timeOf(const recording::SignalInfo& signal) const;
  StoredColumn dataOf(const recording::SignalInfo& signal) const;

  std::uint64_t rowsOf(const StoredColumn& column) const;
  bool hasColumn(const StoredColumn& column) const;

  ColumnReader open(const StoredColumn& column);

  /// \throws std::runtime_error if the column is no float64
  ColumnReader openTimes(const StoredColumn& column);

  /// \throws std::runtime_error if the samples have another type than the signal
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
  std::set<std::string> compared_;  // paths of files that were compared
};

}  // namespace kyr::tool
