#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/ByteSource.h"

namespace kyr::parquet {

/// Bytes of a file are not those that were written.
class DamagedBytes : public std::runtime_error {
 public:
  /// The bytes [from, to) of \p file.
  DamagedBytes(const std::filesystem::path& file, std::uint64_t from, std::uint64_t to,
               const std::string& reason);

  const std::filesystem::path& file() const { return file_; }
  std::uint64_t from() const { return from_; }
  std::uint64_t to() const { return to_; }

 private:
  std::filesystem::path file_;
  std::uint64_t from_;
  std::uint64_t to_;
};

/// What the bytes of a file are compared with. All checksums are XXH3 with seed 0.
struct FileChecksums {
  std::string whole;                  ///< of the file: 128 bits, 32 lower-case hex digits
  std::vector<std::uint64_t> blocks;  ///< 64 bits of each block; may be empty
};

/// A file whose bytes are compared with checksums before they are handed out for the first time:
/// block by block if the blocks have checksums, otherwise as a whole.
///
/// One thread at a time, also for reading.
class CheckedFile final : public ByteSource {
 public:
  static constexpr std::uint64_t kBlockBytes = 262'144;  // Stored in files: never change.

  /// \throws DamagedBytes if the number of blocks does not fit the size
  CheckedFile(std::shared_ptr<const ByteSource> file, FileChecksums expected);

  const std::filesystem::path& path() const override { return file_->path(); }
  std::uint64_t size() const override { return size_; }
  /// \throws DamagedBytes, std::system_error
  std::size_t readAt(std::uint64_t offset, void* out, std::size_t size) const override;

 private:
  // Files of this size stay in memory once they are checked.
  static constexpr std::uint64_t kKeptBytes = 16'384;

  void checkWhole() const;
  // Reads the part [from, to) of a block that was not checked yet.
  void readUnchecked(std::uint64_t block, std::uint64_t from, std::uint64_t to, char* out) const;
  // The block behind the last checked one of a run that starts with \p block.
  std::uint64_t endOfRun(std::uint64_t block, std::uint64_t end) const;
  void readExactly(std::uint64_t offset, char* out, std::uint64_t size) const;

  std::shared_ptr<const ByteSource> file_;
  FileChecksums expected_;
  std::uint64_t size_;
  mutable bool wholeChecked_ = false;
  mutable std::vector<bool> checked_;  // by block
  mutable std::vector<char> kept_;     // all bytes of a small file without blocks
};

}  // namespace kyr::parquet
