#pragma once

#include <arrow/result.h>
#include <arrow/status.h>

#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace kyr::tool {

/// The command line asks for something that makes no sense: exit code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whoever read standard output has gone, as `head` does. No failure: exit code 0.
class OutputClosed : public std::exception {};

/// Why something failed, in the system's words where there are some.
inline std::string reasonOf(const ::arrow::Status& status) {
  return status.detail() ? status.detail()->ToString() : status.message();
}

/// Lack of memory is the same wherever it shows.
inline void throwIfOutOfMemory(const ::arrow::Status& status) {
  if (status.IsOutOfMemory()) throw std::bad_alloc();
}

inline void check(const ::arrow::Status& status) {
  throwIfOutOfMemory(status);
  if (!status.ok()) throw std::runtime_error(status.message());
}

template <typename T>
T check(::arrow::Result<T> result) {
  check(result.status());
  return std::move(result).ValueUnsafe();
}

}  // namespace kyr::tool
