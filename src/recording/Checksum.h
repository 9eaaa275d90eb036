#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "files/CheckedFile.h"
#include "kyr/recording/RecordingInfo.h"
#include "schema/ContentSummary.h"

namespace kyr::recording {

/// Bytes of a file that have a digest of their own.
constexpr std::size_t kBlockBytes = parquet::CheckedFile::kBlockBytes;

struct FileDigest {
  std::uint64_t size = 0;
  std::string checksum;  ///< XXH3 with 128 bits: 32 lower-case hexadecimal digits, high half first
  /// XXH3 with 64 bits of each block of kBlockBytes, of which the last may be shorter. None for a
  /// file of one block.
  std::vector<std::uint64_t> blocks;
};

/// Puts size and digests into what recording.json says of the file.
void describeFile(FileInfo& file, FileDigest digest);

/// What recording.json says of the file's rows.
parquet::ContentSummary summaryOf(const FileInfo& file);
void describeRows(FileInfo& file, parquet::ContentSummary summary);

/// Takes the digests of a file's bytes, which are given in pieces of any size, in order.
class FileDigester {
 public:
  FileDigester();
  ~FileDigester();
  FileDigester(const FileDigester&) = delete;
  FileDigester& operator=(const FileDigester&) = delete;

  void add(const void* data, std::size_t size);
  FileDigest finish();

 private:
  struct State;

  void finishBlock();

  std::unique_ptr<State> state_;
  FileDigest digest_;
};

/// The digests of all bytes of a file. That is faster than piece by piece.
FileDigest digestOfAll(std::string_view bytes);

/// The checksum of a text, as that of a file.
std::string checksumOf(std::string_view text);

}  // namespace kyr::recording
