#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/Digest.h"

namespace kyr {
namespace {

// Digests are stored in files, so they must not depend on the processor's instructions.
TEST(Digest, IsXxh3WhateverTheProcessor) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < 100'000; ++i) bytes.push_back(static_cast<std::uint8_t>(i * i >> 3U));
  for (const std::size_t size : {0U, 1U, 16U, 240U, 241U, 1023U, 1024U, 1025U, 4097U, 99'999U}) {
    for (const std::size_t from : {0U, 1U}) {
      const XXH128_hash_t expected = XXH3_128bits(bytes.data() + from, size);
      EXPECT_TRUE(XXH128_isEqual(digestOfBytes(bytes.data() + from, size), expected)) << size;
      const auto inPieces = std::make_unique<XXH3_state_t>();
      XXH3_128bits_reset(inPieces.get());
      for (std::size_t at = 0, piece = 1; at < size; at += piece, piece *= 3) {
        addToDigest(*inPieces, bytes.data() + from + at, std::min(piece, size - at));
      }
      EXPECT_TRUE(XXH128_isEqual(XXH3_128bits_digest(inPieces.get()), expected)) << size;
      XXH3_64bits_reset(inPieces.get());
      addToDigest(*inPieces, bytes.data() + from, size);
      EXPECT_EQ(XXH3_64bits_digest(inPieces.get()), XXH3_64bits(bytes.data() + from, size));
    }
  }
}

}  // namespace
}  // namespace kyr
