#include "files/CheckedFile.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <utility>

#include "platform/Digest.h"
#include "schema/ByteBuffer.h"

namespace kyr::parquet {

DamagedBytes::DamagedBytes(const std::filesystem::path& file, std::uint64_t from, std::uint64_t to,
                           const std::string& reason)
    : std::runtime_error(
          fmt::format("{}: bytes {} to {} are damaged: {}", file.string(), from, to, reason)),
      file_(file),
      from_(from),
      to_(to) {}

CheckedFile::CheckedFile(std::shared_ptr<const ByteSource> file, FileChecksums expected)
    : file_(std::move(file)), expected_(std::move(expected)), size_(file_->size()) {
  const std::uint64_t blocks = (size_ + kBlockBytes - 1) / kBlockBytes;
  if (!expected_.blocks.empty() && expected_.blocks.size() != blocks) {
    throw DamagedBytes(path(), 0, size_,
                       fmt::format("there are checksums of {} blocks, but {} blocks",
                                   expected_.blocks.size(), blocks));
  }
  checked_.resize(expected_.blocks.size(), false);
}

std::size_t CheckedFile::readAt(std::uint64_t offset, void* out, std::size_t size) const {
  if (offset >= size_) return 0;
  const std::uint64_t end = offset + std::min<std::uint64_t>(size, size_ - offset);
  auto* to = static_cast<char*>(out);
  if (expected_.blocks.empty()) {
    if (!wholeChecked_) checkWhole();
    if (size_ <= kKeptBytes) {
      std::copy_n(kept_.data() + offset, end - offset, to);
    } else {
      readExactly(offset, to, end - offset);
    }
    return static_cast<std::size_t>(end - offset);
  }
  for (std::uint64_t at = offset; at < end;) {
    const std::uint64_t block = at / kBlockBytes;
    const bool isChecked = checked_[static_cast<std::size_t>(block)];
    const std::uint64_t last = isChecked ? endOfRun(block, end) : block + 1;
    const std::uint64_t stop = std::min(end, last * kBlockBytes);
    if (isChecked) {
      readExactly(at, to, stop - at);
    } else {
      readUnchecked(block, at, stop, to);
    }
    to += stop - at;
    at = stop;
  }
  return static_cast<std::size_t>(end - offset);
}

std::uint64_t CheckedFile::endOfRun(std::uint64_t block, std::uint64_t end) const {
  while (block * kBlockBytes < end && checked_[static_cast<std::size_t>(block)]) ++block;
  return block;
}

void CheckedFile::readUnchecked(std::uint64_t block, std::uint64_t from, std::uint64_t to,
                                char* out) const {
  const std::uint64_t start = block * kBlockBytes;
  const std::uint64_t size = std::min(kBlockBytes, size_ - start);
  const bool isAll = to - from == size;
  // Freed at once: a reader may have hundreds of files open.
  ByteBuffer whole;
  if (!isAll) whole.extend(static_cast<std::size_t>(size));
  char* const bytes = isAll ? out : whole.data();
  readExactly(start, bytes, size);
  const std::uint64_t found = shortDigestOfBytes(bytes, static_cast<std::size_t>(size));
  const std::uint64_t expected = expected_.blocks[static_cast<std::size_t>(block)];
  if (found != expected) {
    throw DamagedBytes(path(), start, start + size,
                       fmt::format("their checksum is {:016x}, expected {:016x}", found, expected));
  }
  if (!isAll) std::copy_n(bytes + (from - start), to - from, out);
  checked_[static_cast<std::size_t>(block)] = true;
}

// A small file is read once, and then kept.
void CheckedFile::checkWhole() const {
  kept_.resize(static_cast<std::size_t>(std::min(size_, kBlockBytes)));
  XXH3_state_t state;
  XXH3_128bits_reset(&state);
  for (std::uint64_t at = 0; at < size_;) {
    const auto size = std::min<std::uint64_t>(kept_.size(), size_ - at);
    readExactly(at, kept_.data(), size);
    addToDigest(state, kept_.data(), static_cast<std::size_t>(size));
    at += size;
  }
  const std::string found = digitsOf(XXH3_128bits_digest(&state));
  if (found != expected_.whole) {
    throw DamagedBytes(path(), 0, size_,
                       fmt::format("their checksum is {}, expected {}", found, expected_.whole));
  }
  wholeChecked_ = true;
  if (size_ > kKeptBytes) kept_ = std::vector<char>();  // {} would keep the memory
}

void CheckedFile::readExactly(std::uint64_t offset, char* out, std::uint64_t size) const {
  const std::size_t got = file_->readAt(offset, out, static_cast<std::size_t>(size));
  if (got == size) return;
  throw DamagedBytes(path(), offset + got, size_, "the file was cut");
}

}  // namespace kyr::parquet
