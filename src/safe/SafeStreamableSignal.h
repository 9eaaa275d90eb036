#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "kyr/parquet/StreamableSignal.h"
#include "platform/Prefetch.h"
#include "safe/Part.h"
#include "safe/SharedStore.h"
#include "safe/StagedRows.h"

namespace kyr::parquet {

/// A streamable signal of a safe pool. StreamableSignal says what the members promise, and Part how
/// rows are stored.
///
/// Rows that come one by one are staged as long as all that they need is to be copied: nobody else
/// has the content, its memory need not grow, and no batch is due. Whatever else is called hands
/// them to their part first.
class SafeStreamableSignal final : public StreamableSignal {
 public:
  /// \param label  what the files say about the signal; type and category are kept up to date here
  /// \param timeId, dataId  contents to take over, or kNoStorage
  SafeStreamableSignal(std::shared_ptr<SharedStore> store, std::shared_ptr<SignalLabel> label,
                       int timeId, int dataId);

  void setBufferSize(unsigned long rows) override;
  void appendTime(const double* time, unsigned long count) override {
    if (count == 1 && time != nullptr) {
      if (stagedTimes_.add(time, sizeof(double))) return;
      if (stagedTimes_.empty() && time_.appendRepeated<sizeof(double)>(time)) return;
    }
    appendTimes(time, count);
  }
  void appendData(const void* data, unsigned long size,
                  const std::vector<std::vector<unsigned long>>& dimensions,
                  const std::vector<int>& extra) override {
    const bool isRow = size == width_ && data != nullptr && dimensions.empty();
    if (isRow && stagedData_.add(data, size)) return;
    appendSamples(data, size, dimensions, extra);
  }
  /// Has the processor load a part of what the next append of samples needs. Each step finds the
  /// next in what it loaded, so that one step for a few signals comes after the other.
  void prefetchForAppend(int step) const {
    if (step == 0) prefetch(this, 5);
    if (step == 1) {
      prefetch(label_.get());
      data_.prefetchContent();
    }
    if (step == 2) data_.prefetchRows();
  }
  void finish(SignalPart part) override;
  void finish() override;
  unsigned long rowCount(SignalPart part) override;
  void flush() override;
  /// Does what flush() does, but does not sync.
  void write();
  /// Leaves out the rows of both parts behind the first \p rows.
  /// \return what restore() needs to undo it; first the times
  std::pair<Part::Uncut, Part::Uncut> cut(std::uint64_t rows);
  void restore(std::pair<Part::Uncut, Part::Uncut> before);
  void resetData() override;
  bool hasData() const override;
  void setDataType(KYRSignalDataType type) override;
  KYRSignalDataType getDataType() const override { return label_->dataType; }
  void setCategory(KYRSignalCategory category) override;
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
  void appendTimes(const double* time, unsigned long count);
  void appendSamples(const void* data, unsigned long size,
                     const std::vector<std::vector<unsigned long>>& dimensions,
                     const std::vector<int>& extra);
  // Hands the staged rows to their parts.
  void unstage();

  // What each append needs comes first; see Part.
  StagedRows stagedTimes_;
  StagedRows stagedData_;
  std::size_t width_ = sizeof(double);
  Part time_;
  Part data_;
  std::shared_ptr<SignalLabel> label_;
  // The data schema that was used last, and the type and category that it belongs to.
  KYRSignalDataType schemaType_ = Double;
  KYRSignalCategory schemaCategory_ = Scalar;
  SampleSchema schema_;
  std::shared_ptr<SharedStore> store_;
};

}  // namespace kyr::parquet
