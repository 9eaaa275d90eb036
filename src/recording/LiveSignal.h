#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/RecordingInfo.h"
#include "safe/SafeStreamableSignal.h"

namespace kyr::recording {

/// A signal of a live recording: that of the pool, with the checks that the recording needs to be
/// one that verifyRecording() accepts. Refuses rows once the recording is closed.
///
/// Errors name the signal.
class LiveSignal final : public parquet::StreamableSignal {
 public:
  /// \param signal  of the pool
  /// \param isClosed  of the recording
  LiveSignal(std::shared_ptr<parquet::SafeStreamableSignal> signal,
             const SignalDescription& description, std::shared_ptr<const bool> isClosed);

  void setBufferSize(unsigned long rows) override { signal_->setBufferSize(rows); }
  void appendTime(const double* time, unsigned long count) override;
  /// \throws std::invalid_argument for a shape other than the declared one
  void appendData(const void* data, unsigned long size,
                  const std::vector<std::vector<unsigned long>>& dimensions,
                  const std::vector<int>& extra) override;
  /// Both do nothing once the recording is closed.
  void finish(SignalPart part) override {
    if (!*isClosed_) signal_->finish(part);
  }
  void finish() override {
    if (!*isClosed_) signal_->finish();
  }
  void resetData() override;
  bool hasData() const override { return signal_->hasData(); }
  /// \throws std::logic_error if there are samples of another type
  void setDataType(KYRSignalDataType type) override;
  KYRSignalDataType getDataType() const override { return signal_->getDataType(); }
  /// \throws std::logic_error if there are samples of another category
  void setCategory(KYRSignalCategory category) override;
  KYRSignalCategory getCategory() const override { return signal_->getCategory(); }
  int getStorageId(SignalPart part) const override { return signal_->getStorageId(part); }
  void getTime(unsigned long from, unsigned long to, std::vector<char>& out) override {
    signal_->getTime(from, to, out);
  }
  void getData(unsigned long from, unsigned long to, std::vector<char>& out,
               std::vector<std::vector<unsigned long>>& dimensions) override {
    signal_->getData(from, to, out, dimensions);
  }
  void setParquetCompressionType(const ::arrow::Compression::type& type) override {
    signal_->setParquetCompressionType(type);
  }
  std::optional<::arrow::Compression::type> getParquetCompressionType() const override {
    return signal_->getParquetCompressionType();
  }
  void getData(unsigned long from, unsigned long to, std::vector<char>& out,
               std::vector<std::vector<unsigned long>>& dimensions,
               std::vector<int>& sizes) override {
    signal_->getData(from, to, out, dimensions, sizes);
  }
  Path getParquetDirectory() const override { return signal_->getParquetDirectory(); }
  unsigned long rowCount(SignalPart part) override { return signal_->rowCount(part); }
  void flush() override;
  ::arrow::Status writeStatus() const override;

  /// The signal that the pool has, or had.
  const std::shared_ptr<parquet::SafeStreamableSignal>& inPool() const { return signal_; }

 private:
  std::string name() const;
  void requireOpen() const {
    if (*isClosed_) refuseClosed();
  }
  [[noreturn]] void refuseClosed() const;
  void requireShape(const std::vector<std::vector<unsigned long>>& dimensions) const;
  void requireNoSamples(const char* what) const;

  std::shared_ptr<parquet::SafeStreamableSignal> signal_;
  std::shared_ptr<const bool> isClosed_;
  bool hasDimensions_;
  SignalDescription description_;
};

}  // namespace kyr::recording
