#pragma once

#include <arrow/type_fwd.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli/Losses.h"
#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "export/RecordingFiles.h"
#include "export/ResampledColumns.h"
#include "kyr/parquet/ParquetExportSerializerWorker.h"

namespace kyr::tool {

/// A table of the column "time" and a column for each signal. It is in memory as a whole.
///
/// Without resampling, all signals must have the same times, bit for bit.
class WideTable {
 public:
  using Progress = std::function<void(double part)>;

  /// \param worker  makes the arrays and the table
  /// \param losses  gets the values that the table cannot hold exactly
  /// \throws std::runtime_error if the signals have different times
  WideTable(parquet::ParquetExportSerializerWorker& worker, RecordingFiles& files,
            const recording::RecordingReader& reader, const std::vector<ExportSignal>& signals,
            const ExportOptions& options, Losses& losses, const Progress& progress);

  const std::shared_ptr<::arrow::Table>& table() const { return table_; }

  /// Names and units of the columns, as `kyr import` reads them.
  const std::vector<std::string>& csvHeader() const { return csvHeader_; }

 private:
  using ArrayPtr = std::shared_ptr<::arrow::Array>;

  void addTimes(const std::vector<double>& times);
  void addSignal(const ExportSignal& signal);
  void addDimensions(const ExportSignal& signal);
  ArrayPtr resampled(const ExportSignal& signal, const ArrayPtr& samples);
  std::shared_ptr<::arrow::Schema> schema() const;
  std::string freeName(std::string name) const;

  parquet::ParquetExportSerializerWorker& worker_;
  RecordingFiles& files_;
  Losses& losses_;
  bool isLinear_;
  std::optional<ResampledColumns> resampling_;
  std::set<std::string> names_;
  std::vector<parquet::ParquetExportSerializerWorker::Column> columns_;
  std::vector<std::shared_ptr<::arrow::Field>> fields_;
  std::vector<ArrayPtr> arrays_;
  std::vector<std::string> csvHeader_;
  std::shared_ptr<::arrow::Table> table_;
};

}  // namespace kyr::tool
