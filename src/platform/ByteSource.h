#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace kyr {

/// Bytes that are read at given offsets: those of a file, perhaps checked on the way.
class ByteSource {
 public:
  ByteSource() = default;
  virtual ~ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  /// Name of the file, for error texts.
  virtual const std::filesystem::path& path() const = 0;
  /// \throws std::system_error naming the file
  virtual std::uint64_t size() const = 0;
  /// \return bytes read; fewer than \p size only where the file ends
  /// \throws std::system_error naming the file
  virtual std::size_t readAt(std::uint64_t offset, void* out, std::size_t size) const = 0;
};

}  // namespace kyr
