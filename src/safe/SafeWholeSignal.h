#pragma once

#include <arrow/util/compression.h>

#include <memory>

#include "safe/Part.h"
#include "safe/SharedStore.h"
#include "safe/WholeSignal.h"

namespace kyr::parquet {

/// A whole signal of a safe pool. Its times are a content of their own, so that signals share them.
class SafeWholeSignal final : public WholeSignal {
 public:
  /// \param label  what the files say about the signal; type and category are kept up to date here
  /// \param timeId, dataId  contents to take over, or kNoStorage
  SafeWholeSignal(std::shared_ptr<SharedStore> store, std::shared_ptr<SignalLabel> label,
                  int timeId, int dataId);

  /// \throws std::exception  naming the file if it cannot be written; nothing has changed then
  void setData(const std::vector<double>& time, const std::vector<char>& data, const Dims& dims,
               const std::vector<int>& lengths) override;
  void getData(std::vector<double>& time, std::vector<char>& data, Dims& dims,
               std::vector<int>& lengths) override;
  void resetData() override;
  bool hasData() const override { return time_.id() || data_.id(); }
  int getStorageId(SignalPart part) const override;
  void setDataType(KYRSignalDataType type) override { label_->dataType = type; }
  KYRSignalDataType getDataType() const override { return label_->dataType; }
  void setCategory(KYRSignalCategory category) override { label_->category = category; }
  KYRSignalCategory getCategory() const override { return label_->category; }
  void setParquetCompressionType(const ::arrow::Compression::type& type) override {
    parquet::requireWritable(type);
    compression_ = type;
  }
  std::optional<::arrow::Compression::type> getParquetCompressionType() const override {
    return compression_.value_or(::arrow::Compression::UNCOMPRESSED);
  }
  Path getParquetDirectory() const override { return store_->directory(); }
  ::arrow::Status writeStatus() const override;

 private:
  void readTimes(std::vector<double>& time);
  void requireTimes(bool areTimes) const;
  // A finished part of the rows.
  Part storedPart(SignalPart part, const SampleSchema& schema, const SampleChunk& chunk,
                  std::size_t width) const;

  std::shared_ptr<SharedStore> store_;
  std::shared_ptr<SignalLabel> label_;
  Part time_;
  Part data_;
  std::optional<::arrow::Compression::type> compression_;
};

}  // namespace kyr::parquet
