#pragma once

#include <arrow/status.h>
#include <arrow/type_fwd.h>

#include <memory>
#include <string>
#include <vector>

#include "kyr/parquet/ParquetExportSerializerWorker.h"
#include "kyr/parquet/ParquetWriterOptions.h"

namespace kyr::parquet {

class ParquetExportSerializerWorkerImpl {
 public:
  using Column = ParquetExportSerializerWorker::Column;
  using Signal = ParquetExportSerializerWorker::Signal;

  std::shared_ptr<::arrow::Schema> getExportSchema(std::vector<Column> columns) const;
  std::vector<std::shared_ptr<::arrow::Array>> buildArray(std::vector<Signal> signals) const;

  /// A copy of \p data as an array of the column type of \p type.
  std::shared_ptr<::arrow::Array> getDataArray(const std::string& name,
                                               const std::vector<char>& data,
                                               const KYRSignalDataType& type) const;

  std::shared_ptr<::arrow::Table> buildTable(
      const std::shared_ptr<::arrow::Schema>& schema,
      const std::vector<std::shared_ptr<::arrow::Array>>& arrays) const;
  void write(const ::arrow::Table& table, std::u16string path);
  ::arrow::Status writeStatus() const { return writeStatus_; }

 private:
  ParquetWriterOptions options_;
  ::arrow::Status writeStatus_;
};

}  // namespace kyr::parquet
