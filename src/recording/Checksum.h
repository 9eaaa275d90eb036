#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace kyr::recording {

/// XXH3 of 128 bits, taken in pieces.
class Checksum {
 public:
  Checksum();
  ~Checksum();
  Checksum(const Checksum&) = delete;
  Checksum& operator=(const Checksum&) = delete;

  void add(const void* data, std::size_t size);
  /// 32 lower-case hex digits, the high half first.
  std::string digits() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

std::string checksumOf(std::string_view text);

}  // namespace kyr::recording
