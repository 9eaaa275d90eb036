#include "recording/Checksum.h"

#include <fmt/format.h>
#include <xxhash.h>

namespace kyr::recording {

struct Checksum::State {
  XXH3_state_t xxh;
};

Checksum::Checksum() : state_(std::make_unique<State>()) { XXH3_128bits_reset(&state_->xxh); }

Checksum::~Checksum() = default;

void Checksum::add(const void* data, std::size_t size) {
  XXH3_128bits_update(&state_->xxh, data, size);
}

std::string Checksum::digits() const {
  const XXH128_hash_t hash = XXH3_128bits_digest(&state_->xxh);
  return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

std::string checksumOf(std::string_view text) {
  Checksum checksum;
  checksum.add(text.data(), text.size());
  return checksum.digits();
}

}  // namespace kyr::recording
