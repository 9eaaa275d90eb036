#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace kyr::tool {

/// Writes "kyr: MESSAGE" to standard error, on one line. It is no failure if nobody can read it.
void tell(const std::string& message);

/// Tells notes, or of these only the warnings.
void tellNotes(const std::vector<std::string>& notes, bool isQuiet);

/// Whether an error of writing to standard output, a value of errno, says that nobody can read it:
/// a pipe or a terminal that was closed.
bool isOutputGone(int error);

/// Whether standard output is a terminal, which obeys control characters.
bool isTerminal();

/// The columns of the terminal; 0 if standard output is none.
std::size_t terminalWidth();

/// Standard output, buffered. Text that was not flushed is lost when the command fails.
class Output {
 public:
  template <typename... Args>
  void print(fmt::format_string<Args...> format, Args&&... args) {
    fmt::format_to(fmt::appender(buffer_), format, std::forward<Args>(args)...);
  }

  /// The buffer, to append to. endRow() flushes it now and then.
  fmt::memory_buffer& buffer() { return buffer_; }

  void endRow() {
    buffer_.push_back('\n');
    flushIfFull();
  }
  void flushIfFull() {
    if (buffer_.size() >= kFlushSize) flush();
  }

  /// \throws OutputClosed if nobody reads the output any more, Interrupted
  void flush();

 private:
  static constexpr std::size_t kFlushSize = 1 << 18;

  fmt::memory_buffer buffer_;
};

}  // namespace kyr::tool
