#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <optional>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/Path.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

/// The implementation behind a ParquetSignal, which says what the members promise.
class WholeSignal {
 public:
  using Dims = std::vector<std::vector<std::size_t>>;

  virtual ~WholeSignal() = default;

  virtual void setData(const std::vector<double>& time, const std::vector<char>& data,
                       const Dims& dims, const std::vector<int>& lengths) = 0;
  virtual void getData(std::vector<double>& time, std::vector<char>& data, Dims& dims,
                       std::vector<int>& lengths) = 0;
  virtual void resetData() = 0;
  virtual bool hasData() const = 0;
  virtual int getStorageId(SignalPart part) const = 0;
  virtual void setDataType(KYRSignalDataType type) = 0;
  virtual KYRSignalDataType getDataType() const = 0;
  virtual void setCategory(KYRSignalCategory category) = 0;
  virtual KYRSignalCategory getCategory() const = 0;
  virtual void setParquetCompressionType(const ::arrow::Compression::type& type) = 0;
  virtual std::optional<::arrow::Compression::type> getParquetCompressionType() const = 0;
  virtual Path getParquetDirectory() const = 0;
  virtual ::arrow::Status writeStatus() const = 0;
};

}  // namespace kyr::parquet
