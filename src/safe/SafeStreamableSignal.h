#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/StreamableSignal.h"
#include "safe/Part.h"
#include "safe/SharedStore.h"

namespace kyr::parquet {

/// A streamable signal of a safe pool. StreamableSignal says what the members promise, and Part how
/// rows are stored.
class SafeStreamableSignal final : public StreamableSignal {
 public:
  /// \param label  what the files say about the signal; type and category are kept up to date here
  /// \param timeId, dataId  contents to take over, or kNoStorage
  SafeStreamableSignal(std::shared_ptr<SharedStore> store, std::shared_ptr<SignalLabel> label,
                       int timeId, int dataId);

  void setBufferSize(unsigned long rows) override;
  void appendTime(const double* time, unsigned long count) override;
  void appendData(const void* data, unsigned long size,
                  const std::vector<std::vector<unsigned long>>& dimensions,
                  const std::vector<int>& extra) override;
  void finish(SignalPart part) override;
  void finish() override;
  unsigned long rowCount(SignalPart part) override;
  void flush() override;
  /// Does what flush() does, but does not sync.
  void write();
  /// Leaves out the rows of both parts behind the first \p rows.
  void cut(std::uint64_t rows);
  void resetData() override;
  bool hasData() const override;
  void setDataType(KYRSignalDataType type) override { label_->dataType = type; }
  KYRSignalDataType getDataType() const override { return label_->dataType; }
  void setCategory(KYRSignalCategory category) override { label_->category = category; }
  KYRSignalCategory getCategory() const override { return label_->category; }
  int getStorageId(SignalPart part) const override;
  void getTime(unsigned long from, unsigned long to, std::vector<char>& out) override;
  void getData(unsigned long from, unsigned long to, std::vector<char>& out,
               std::vector<std::vector<unsigned long>>& dimensions) override;
  void getData(unsigned long from, unsigned long to, std::vector<char>& out,
               std::vector<std::vector<unsigned long>>& dimensions,
               std::vector<int>& sizes) override;
  void setParquetCompressionType(const ::arrow::Compression::type& type) override;
  std::optional<::arrow::Compression::type> getParquetCompressionType() const override {
    return time_.codec();
  }
  Path getParquetDirectory() const override { return store_->directory(); }
  ::arrow::Status writeStatus() const override;

 private:
  const SampleSchema& dataSchema();

  std::shared_ptr<SignalLabel> label_;
  // The data schema that was used last, and the type and category that it belongs to.
  KYRSignalDataType schemaType_ = Double;
  KYRSignalCategory schemaCategory_ = Scalar;
  std::size_t width_ = sizeof(double);
  SampleSchema schema_;
  std::shared_ptr<SharedStore> store_;
  Part data_;
  Part time_;
};

}  // namespace kyr::parquet
