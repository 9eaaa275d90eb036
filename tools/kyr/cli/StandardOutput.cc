#include "cli/StandardOutput.h"

#include <arrow/status.h>

#include <cerrno>
#include <cstdio>

#include "cli/Errors.h"
#include "cli/Output.h"

namespace kyr::tool {

::arrow::Status StandardOutput::failure(int error) {
  isAbandoned_ = isAbandoned_ || isOutputGone(error);
  return ::arrow::Status::IOError(systemError("standard output", "written", error).what());
}

::arrow::Status StandardOutput::Write(const void* data, std::int64_t size) {
  const auto bytes = static_cast<std::size_t>(size);
  if (std::fwrite(data, 1, bytes, stdout) != bytes) return failure(errno);
  position_ += size;
  return ::arrow::Status::OK();
}

::arrow::Status StandardOutput::Flush() {
  return std::fflush(stdout) == 0 ? ::arrow::Status::OK() : failure(errno);
}

::arrow::Status StandardOutput::Close() {
  isClosed_ = true;
  return Flush();
}

}  // namespace kyr::tool
