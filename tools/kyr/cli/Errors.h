#pragma once

#include <arrow/result.h>
#include <arrow/status.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kyr::tool {

/// The command line asks for something that makes no sense: exit code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The program that read standard output has gone, as `head` does. That is no failure: exit code 0.
class OutputClosed : public std::exception {};

/// "run.csv cannot be read: No such file or directory".
/// \param error  a value of errno
std::runtime_error systemError(const std::string& name, std::string_view operation, int error);

/// Why something failed, in the words of the system if it gave a reason.
std::string reasonOf(const ::arrow::Status& status);

/// \throws std::bad_alloc if the status says that memory ran out
void throwIfOutOfMemory(const ::arrow::Status& status);

/// \throws std::bad_alloc, std::runtime_error if the status is no success
void check(const ::arrow::Status& status);

template <typename T>
T check(::arrow::Result<T> result) {
  check(result.status());
  return std::move(result).ValueUnsafe();
}

/// Tells the user about the exception that is being handled. Returns the exit code. Does not return
/// after an interrupt.
int reportCurrentException();

}  // namespace kyr::tool
