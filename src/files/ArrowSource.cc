#include "files/ArrowSource.h"

#include <arrow/buffer.h>
#include <arrow/result.h>

#include <algorithm>
#include <utility>

namespace kyr::parquet {

ArrowSource::ArrowSource(std::shared_ptr<const ByteSource> file) : file_(std::move(file)) {}

void ArrowSource::rethrow() {
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

::arrow::Status ArrowSource::keepFailure() {
  failure_ = std::current_exception();
  return ::arrow::Status::IOError("the file cannot be read");
}

::arrow::Result<std::int64_t> ArrowSource::ReadAt(std::int64_t position, std::int64_t size,
                                                  void* out) {
  if (position < 0 || size < 0) return ::arrow::Status::Invalid("a negative place in a file");
  try {
    return static_cast<std::int64_t>(
        file_->readAt(static_cast<std::uint64_t>(position), out, static_cast<std::size_t>(size)));
  } catch (...) {
    return keepFailure();
  }
}

::arrow::Result<std::shared_ptr<::arrow::Buffer>> ArrowSource::ReadAt(std::int64_t position,
                                                                      std::int64_t size) {
  // A length from damaged metadata must not reserve memory that no file could fill.
  ARROW_ASSIGN_OR_RAISE(const std::int64_t fileSize, GetSize());
  if (position < 0 || size < 0 || position > fileSize) {
    return ::arrow::Status::Invalid("a place outside of the file");
  }
  size = std::min(size, fileSize - position);
  ARROW_ASSIGN_OR_RAISE(auto buffer, ::arrow::AllocateResizableBuffer(size));
  ARROW_ASSIGN_OR_RAISE(const std::int64_t got, ReadAt(position, size, buffer->mutable_data()));
  ARROW_RETURN_NOT_OK(buffer->Resize(got));
  return std::shared_ptr<::arrow::Buffer>(std::move(buffer));
}

::arrow::Result<std::int64_t> ArrowSource::Read(std::int64_t size, void* out) {
  ARROW_ASSIGN_OR_RAISE(const std::int64_t got, ReadAt(position_, size, out));
  position_ += got;
  return got;
}

::arrow::Result<std::shared_ptr<::arrow::Buffer>> ArrowSource::Read(std::int64_t size) {
  ARROW_ASSIGN_OR_RAISE(auto buffer, ReadAt(position_, size));
  position_ += buffer->size();
  return buffer;
}

::arrow::Result<std::int64_t> ArrowSource::GetSize() {
  try {
    return static_cast<std::int64_t>(file_->size());
  } catch (...) {
    return keepFailure();
  }
}

::arrow::Status ArrowSource::Seek(std::int64_t position) {
  position_ = position;
  return ::arrow::Status::OK();
}

::arrow::Status ArrowSource::Close() {
  closed_ = true;
  return ::arrow::Status::OK();
}

}  // namespace kyr::parquet
