#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/result.h>
#include <arrow/status.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/DiskFile.h"

namespace kyr::parquet {

/// Where Arrow writes a new file from its beginning on. Gathers small pieces. Arrow is told of a
/// failure in its way; throwFailure() tells the rest.
class DiskSink final : public ::arrow::io::OutputStream {
 public:
  /// \param file  must outlive the object
  /// \param onWritten  is called with all bytes in order, when they are written
  explicit DiskSink(DiskFile& file, std::function<void(std::string_view)> onWritten = {})
      : file_(file), onWritten_(std::move(onWritten)) {}

  ::arrow::Status Write(const void* data, std::int64_t size) override {
    const std::string_view piece(static_cast<const char*>(data), static_cast<std::size_t>(size));
    try {
      if (piece.size() >= kGathered) {
        put({gathered_, piece});
      } else {
        gathered_ += piece;
        if (gathered_.size() >= kGathered) put({gathered_});
      }
      return ::arrow::Status::OK();
    } catch (const std::exception& error) {
      failure_ = std::current_exception();
      return ::arrow::Status::IOError(error.what());
    }
  }
  ::arrow::Result<std::int64_t> Tell() const override {
    return static_cast<std::int64_t>(written_ + gathered_.size());
  }
  ::arrow::Status Close() override {
    closed_ = true;
    return ::arrow::Status::OK();
  }
  bool closed() const override { return closed_; }

  /// Writes what is gathered.
  /// \throws std::system_error naming the file
  void finish() { put({gathered_}); }
  std::uint64_t written() const { return written_; }
  void throwFailure() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  static constexpr std::size_t kGathered = std::size_t{64} << 10U;

  void put(const std::vector<std::string_view>& pieces) {
    file_.writeAt(written_, pieces);
    for (const std::string_view piece : pieces) {
      written_ += piece.size();
      if (onWritten_) onWritten_(piece);
    }
    gathered_.clear();
  }

  DiskFile& file_;
  std::function<void(std::string_view)> onWritten_;
  std::string gathered_;
  std::uint64_t written_ = 0;
  std::exception_ptr failure_;
  bool closed_ = false;
};

}  // namespace kyr::parquet
