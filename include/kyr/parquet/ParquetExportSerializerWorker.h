#pragma once

#include <arrow/type_fwd.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

class ParquetExportSerializerWorkerImpl;

/// \brief Writes many signals side by side into one Parquet file of the caller's choice.
///
/// Four steps: getExportSchema() describes the columns, buildArray() makes arrays of the signals,
/// buildTable() joins the two, write() puts the table into a file. Numeric scalar signals only;
/// columns of other kinds are the caller's to build.
///
/// The worker copies the process-wide serialization options when it is made: later changes of
/// codec, dictionary and batch size do not reach it. One thread at a time. Not copyable.
class KYR_PARQUET_EXPORT ParquetExportSerializerWorker {
 public:
  /// Category, data type, whether a time column comes first, and name.
  using Column = std::tuple<KYRSignalCategory, KYRSignalDataType, bool, std::string>;

  /// Name, times [s], samples as the elements' bytes back to back, dimensions (not used), and data
  /// type.
  using Signal = std::tuple<std::string, std::vector<double>, std::vector<char>,
                            std::vector<std::vector<int>>, KYRSignalDataType>;

  ParquetExportSerializerWorker();
  ~ParquetExportSerializerWorker();
  ParquetExportSerializerWorker(const ParquetExportSerializerWorker&) = delete;
  ParquetExportSerializerWorker& operator=(const ParquetExportSerializerWorker&) = delete;

  /// \brief The fields of all columns, in order: schemaBuilder::getCustomSchema().
  ///
  /// Nothing is merged: ask for the time column once if one is wanted, and choose distinct names.
  /// \throws std::invalid_argument naming the column whose category or type is unknown
  std::shared_ptr<::arrow::Schema> getExportSchema(std::vector<Column> columns);

  /// \brief Two arrays per signal, copies: its times (float64), then its samples.
  ///
  /// They fit a schema whose columns all have a time column. A trailing partial element is dropped.
  /// The numbers of times and samples are not compared.
  /// \throws std::runtime_error "Unknown data type encountered." for a type other than `Double`,
  ///         `Single` and the integers from `Int8` to `UInt64`: `Boolean`, `UInt32Alt`, `UInt64Alt`
  ///         and blobs are refused, too
  std::vector<std::shared_ptr<::arrow::Array>> buildArray(std::vector<Signal> signals);

  /// \brief A table of \p arrays, in order, under \p schema; the two are not compared here.
  /// \throws std::invalid_argument if the schema is empty
  std::shared_ptr<::arrow::Table> buildTable(
      const std::shared_ptr<::arrow::Schema>& schema,
      const std::vector<std::shared_ptr<::arrow::Array>>& arrays);

  /// \brief Write \p table to the file \p path as one row group. Tables of more than 1,048,576
  /// rows, Parquet's own limit, get several.
  ///
  /// The metadata of the schema and its fields is not written. The file is opened for appending,
  /// and Parquet cannot append: a file that holds bytes keeps them, and the table is lost. So
  /// remove an older file first. A failed write reports nothing by itself: ask writeStatus().
  /// \throws ::parquet::ParquetStatusException if the file cannot be opened
  /// \throws std::invalid_argument if \p path is not well-formed UTF-16
  void write(const ::arrow::Table& table, std::u16string path);

  /// \brief Status of the latest write; OK before the first.
  ::arrow::Status writeStatus() const;

 private:
  std::unique_ptr<ParquetExportSerializerWorkerImpl> impl_;
};

}  // namespace kyr::parquet
