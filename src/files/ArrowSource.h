#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/result.h>

#include <cstdint>
#include <exception>
#include <memory>

#include "platform/ByteSource.h"

namespace kyr::parquet {

/// A file as Arrow reads it. Arrow knows no exceptions: what the file throws is kept.
class ArrowSource final : public ::arrow::io::RandomAccessFile {
 public:
  explicit ArrowSource(std::shared_ptr<const ByteSource> file);

  const ByteSource& file() const { return *file_; }

  /// Throws what the file threw since the last call, if anything.
  void rethrow();

  ::arrow::Result<std::int64_t> ReadAt(std::int64_t position, std::int64_t size,
                                       void* out) override;
  ::arrow::Result<std::shared_ptr<::arrow::Buffer>> ReadAt(std::int64_t position,
                                                           std::int64_t size) override;
  ::arrow::Result<std::int64_t> Read(std::int64_t size, void* out) override;
  ::arrow::Result<std::shared_ptr<::arrow::Buffer>> Read(std::int64_t size) override;
  ::arrow::Result<std::int64_t> GetSize() override;
  ::arrow::Status Seek(std::int64_t position) override;
  ::arrow::Result<std::int64_t> Tell() const override { return position_; }
  ::arrow::Status Close() override;
  bool closed() const override { return closed_; }

 private:
  ::arrow::Status keepFailure();

  std::shared_ptr<const ByteSource> file_;
  std::exception_ptr failure_;
  std::int64_t position_ = 0;
  bool closed_ = false;
};

}  // namespace kyr::parquet
