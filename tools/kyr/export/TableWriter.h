#pragma once

#include <arrow/io/type_fwd.h>
#include <arrow/ipc/type_fwd.h>
#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/arrow/writer.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "export/ExportOptions.h"

namespace kyr::tool {

class StandardOutput;

/// Writes a table batch by batch, in any format, to a file or to standard output.
class TableWriter {
 public:
  struct Target {
    ExportFormat format;
    std::filesystem::path file;  ///< empty for standard output
    std::string name;            ///< what errors call it
    std::optional<::arrow::Compression::type> codec;
    /// Whether Parquet files tell the smallest and largest values of each row group, with which
    /// readers of a sorted table skip row groups.
    bool hasStatistics = false;
  };

  /// \param csvHeader  names of the columns in a CSV file
  TableWriter(const Target& target, std::shared_ptr<::arrow::Schema> schema,
              const std::vector<std::string>& csvHeader);
  ~TableWriter();
  TableWriter(const TableWriter&) = delete;
  TableWriter& operator=(const TableWriter&) = delete;

  /// \throws std::runtime_error, OutputClosed, Interrupted
  void write(const ::arrow::RecordBatch& batch);

  /// To be called at the end.
  void close();

 private:
  void open(const Target& target, const std::vector<std::string>& csvHeader);
  void startGroupIfFull(const ::arrow::RecordBatch& batch);
  void checkWritten(const ::arrow::Status& status) const;

  std::string name_;
  std::shared_ptr<::arrow::Schema> schema_;
  std::shared_ptr<StandardOutput> standardOutput_;
  std::shared_ptr<::arrow::io::OutputStream> stream_;
  std::unique_ptr<::parquet::arrow::FileWriter> parquet_;
  std::int64_t groupBytes_ = 0;  // of the rows of the row group that is being written
  std::shared_ptr<::arrow::ipc::RecordBatchWriter> other_;
};

}  // namespace kyr::tool
