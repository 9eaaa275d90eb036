#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/result.h>

#include <cstdint>

namespace kyr::tool {

/// Standard output as a stream of Arrow. A failure is a status, because Arrow lets no exceptions
/// pass.
class StandardOutput : public ::arrow::io::OutputStream {
 public:
  using ::arrow::io::OutputStream::Write;
  ::arrow::Status Write(const void* data, std::int64_t size) override;
  ::arrow::Status Flush() override;
  ::arrow::Status Close() override;
  ::arrow::Result<std::int64_t> Tell() const override { return position_; }
  bool closed() const override { return isClosed_; }

  /// Whether writing failed because nobody reads the output any more.
  bool isAbandoned() const { return isAbandoned_; }

 private:
  ::arrow::Status failure(int error);

  std::int64_t position_ = 0;
  bool isClosed_ = false;
  bool isAbandoned_ = false;
};

}  // namespace kyr::tool
