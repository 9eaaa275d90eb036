#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/result.h>
#include <arrow/status.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "files/ParquetTail.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// What a Parquet file is written to, from its first byte on. Small pieces are gathered, so that a
/// small file costs one call of the system.
///
/// Arrow sees a failure as a Status, and from then on nothing more is written. A failure of a
/// DiskFile keeps its exception: throwFailure().
class FileSink final : public ::arrow::io::OutputStream {
 public:
  /// Takes the bytes of the file in order; either piece may be empty.
  using Target = std::function<void(std::string_view first, std::string_view second)>;
  using Observer = std::function<void(std::string_view written)>;

  /// \param file  empty; must outlive the object
  /// \param onWritten  gets all bytes in order after they were written
  explicit FileSink(DiskFile& file, Observer onWritten = {});
  /// \param stream  at its position 0; is not closed here
  explicit FileSink(std::shared_ptr<::arrow::io::OutputStream> stream);
  /// Hands every piece to \p target at once.
  /// \param start  the position that Tell() says for the first byte behind the leading magic. A row
  ///        group for the middle of another file is written this way, because Parquet's writers
  ///        accept only files that begin at 0
  FileSink(Target target, std::uint64_t start);

  ::arrow::Status Write(const void* data, std::int64_t size) override;
  ::arrow::Status Flush() override;
  ::arrow::Result<std::int64_t> Tell() const override;
  /// Flushes. What the object writes to stays open.
  ::arrow::Status Close() override;
  bool closed() const override { return closed_; }

  /// Writes what is gathered.
  /// \throws std::system_error naming the file
  void finish();
  std::uint64_t written() const { return written_; }
  void throwFailure() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  ::arrow::Status tryPut(std::string_view piece);
  void put(std::string_view piece);

  Target target_;
  std::size_t gatheredAtMost_;
  std::uint64_t start_ = kParquetMagic.size();
  std::string gathered_;
  std::uint64_t written_ = 0;
  ::arrow::Status status_;
  std::exception_ptr failure_;
  bool closed_ = false;
};

}  // namespace kyr::parquet
