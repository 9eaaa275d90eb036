#pragma once

#include <fmt/format.h>

#include <string>
#include <utility>

namespace kyr::tool {

/// "kyr: MESSAGE" on standard error, on one line. That nobody can read it is no failure.
void tell(const std::string& message);

/// Standard output, buffered. What was not flushed when an error strikes is lost, as the command
/// has failed then.
class Output {
 public:
  template <typename... Args>
  void print(fmt::format_string<Args...> format, Args&&... args) {
    fmt::format_to(fmt::appender(buffer_), format, std::forward<Args>(args)...);
  }

  /// To append to; call endRow() now and then.
  fmt::memory_buffer& buffer() { return buffer_; }

  void endRow() {
    buffer_.push_back('\n');
    if (buffer_.size() >= kFlushSize) flush();
  }

  /// \throws OutputClosed if nobody reads any more, Interrupted
  void flush();

 private:
  static constexpr std::size_t kFlushSize = 1 << 18;

  fmt::memory_buffer buffer_;
};

}  // namespace kyr::tool
