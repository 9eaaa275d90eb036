#include "cli/History.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <vector>

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

// Nothing if the file cannot be read a second time.
std::optional<std::string> checksumOf(const std::string& file) {
  constexpr std::size_t kPiece = std::size_t{1} << 20U;
  std::ifstream in(file, std::ios::binary);
  std::vector<char> piece(kPiece);
  XXH3_state_t state;
  XXH3_128bits_reset(&state);
  while (in.read(piece.data(), kPiece) || in.gcount() > 0) {
    XXH3_128bits_update(&state, piece.data(), static_cast<std::size_t>(in.gcount()));
  }
  if (!in.eof()) return std::nullopt;
  const XXH128_hash_t digest = XXH3_128bits_digest(&state);
  return fmt::format("{:016x}{:016x}", digest.high64, digest.low64);
}

}  // namespace

void addHistory(recording::Attributes& attributes, const std::string& command,
                const std::string& source, bool isComplete) {
  nlohmann::ordered_json step = {{"tool", command}, {"version", KYR_VERSION}};
  std::error_code ignored;
  if (source != "-" && fs::is_regular_file(source, ignored)) {
    step["source"] = fs::path(source).filename().string();
    const auto checksum = isComplete ? checksumOf(source) : std::nullopt;
    if (checksum) step["source_xxh3_128"] = *checksum;
  }
  constexpr auto kReplaceOddBytes = nlohmann::ordered_json::error_handler_t::replace;
  attributes.try_emplace(kHistoryAttribute, nlohmann::ordered_json::array({step}).dump(
                                                -1, ' ', /*ensure_ascii=*/false, kReplaceOddBytes));
}

}  // namespace kyr::tool
