#include "files/FileSink.h"

#include <parquet/exception.h>

#include <utility>

namespace kyr::parquet {

namespace {

constexpr std::size_t kGathered = std::size_t{64} << 10U;

void write(::arrow::io::OutputStream& stream, std::string_view piece) {
  if (piece.empty()) return;
  PARQUET_THROW_NOT_OK(stream.Write(piece.data(), static_cast<std::int64_t>(piece.size())));
}

}  // namespace

FileSink::FileSink(DiskFile& file, Observer onWritten)
    : target_([this, &file, onWritten = std::move(onWritten)](auto first, auto second) {
        file.writeAt(written_, {first, second});
        if (!onWritten) return;
        onWritten(first);
        onWritten(second);
      }),
      gatheredAtMost_(kGathered) {}

FileSink::FileSink(std::shared_ptr<::arrow::io::OutputStream> stream)
    : target_([stream = std::move(stream)](auto first, auto second) {
        write(*stream, first);
        write(*stream, second);
      }),
      gatheredAtMost_(kGathered) {}

FileSink::FileSink(Target target, std::uint64_t start)
    : target_(std::move(target)), gatheredAtMost_(0), start_(start) {}

::arrow::Status FileSink::Write(const void* data, std::int64_t size) {
  const std::string_view piece(static_cast<const char*>(data), static_cast<std::size_t>(size));
  if (!status_.ok() || gathered_.size() + piece.size() > gatheredAtMost_) return tryPut(piece);
  gathered_ += piece;
  return ::arrow::Status::OK();
}

::arrow::Status FileSink::Flush() { return gathered_.empty() ? status_ : tryPut({}); }

::arrow::Status FileSink::tryPut(std::string_view piece) {
  if (!status_.ok()) return status_;
  try {
    put(piece);
  } catch (const ::parquet::ParquetStatusException& error) {
    status_ = error.status();
  } catch (const std::exception& error) {
    failure_ = std::current_exception();
    status_ = ::arrow::Status::IOError(error.what());
  }
  return status_;
}

void FileSink::put(std::string_view piece) {
  target_(gathered_, piece);
  written_ += gathered_.size() + piece.size();
  gathered_.clear();
}

::arrow::Result<std::int64_t> FileSink::Tell() const {
  const std::uint64_t bytes = written_ + gathered_.size();
  return static_cast<std::int64_t>(bytes == 0 ? 0 : start_ + bytes - kParquetMagic.size());
}

::arrow::Status FileSink::Close() {
  closed_ = true;
  return Flush();
}

void FileSink::finish() {
  if (!gathered_.empty()) put({});
}

}  // namespace kyr::parquet
