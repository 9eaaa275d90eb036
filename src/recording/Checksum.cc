#include "recording/Checksum.h"

#include <xxhash.h>

#include <algorithm>
#include <utility>

#include "platform/Digest.h"

namespace kyr::recording {

struct FileDigester::State {
  XXH3_state_t whole;
  XXH3_state_t block;
  std::size_t blockBytes = 0;
};

FileDigester::FileDigester() : state_(std::make_unique<State>()) {
  XXH3_128bits_reset(&state_->whole);
  XXH3_64bits_reset(&state_->block);
}

FileDigester::~FileDigester() = default;

void FileDigester::add(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const std::size_t count = std::min(size, kBlockBytes - state_->blockBytes);
    addToDigest(state_->whole, bytes, count);
    digest_.size += count;
    if (count == kBlockBytes) {
      digest_.blocks.push_back(shortDigestOfBytes(bytes, count));
    } else {
      addToDigest(state_->block, bytes, count);
      state_->blockBytes += count;
      if (state_->blockBytes == kBlockBytes) finishBlock();
    }
    bytes += count;
    size -= count;
  }
}

void FileDigester::finishBlock() {
  digest_.blocks.push_back(XXH3_64bits_digest(&state_->block));
  XXH3_64bits_reset(&state_->block);
  state_->blockBytes = 0;
}

FileDigest FileDigester::finish() {
  if (state_->blockBytes > 0) finishBlock();
  if (digest_.blocks.size() == 1) digest_.blocks.clear();
  digest_.checksum = digitsOf(XXH3_128bits_digest(&state_->whole));
  return std::move(digest_);
}

FileDigest digestOfAll(std::string_view bytes) {
  FileDigest digest;
  digest.size = bytes.size();
  digest.checksum = checksumOf(bytes);
  for (std::size_t at = 0; at < bytes.size() && bytes.size() > kBlockBytes; at += kBlockBytes) {
    const std::string_view block = bytes.substr(at, kBlockBytes);
    digest.blocks.push_back(shortDigestOfBytes(block.data(), block.size()));
  }
  return digest;
}

void describeFile(FileInfo& file, FileDigest digest) {
  file.size = digest.size;
  file.checksum = std::move(digest.checksum);
  file.blocks = std::move(digest.blocks);
}

parquet::ContentSummary summaryOf(const FileInfo& file) {
  return {file.contentDigest, file.minimum, file.maximum};
}

void describeRows(FileInfo& file, parquet::ContentSummary summary) {
  file.contentDigest = std::move(summary.digest);
  file.minimum = summary.minimum;
  file.maximum = summary.maximum;
}

std::string checksumOf(std::string_view text) {
  return digitsOf(digestOfBytes(text.data(), text.size()));
}

}  // namespace kyr::recording
