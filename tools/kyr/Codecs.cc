#include "Codecs.h"

#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <array>
#include <string_view>
#include <utility>

#include "Errors.h"

namespace kyr::tool {

namespace {

using Codec = ::arrow::Compression;

constexpr std::array<std::pair<std::string_view, Codec::type>, 6> kCodecs{{
    {"uncompressed", Codec::UNCOMPRESSED},
    {"snappy", Codec::SNAPPY},
    {"gzip", Codec::GZIP},
    {"brotli", Codec::BROTLI},
    {"zstd", Codec::ZSTD},
    {"lz4_hadoop", Codec::LZ4_HADOOP},
}};

}  // namespace

std::string codecNames() {
  std::string names;
  for (const auto& [name, codec] : kCodecs) {
    names += (names.empty() ? "" : ", ") + std::string(name);
  }
  return names;
}

Codec::type codecCalled(const std::string& name) {
  for (const auto& [known, codec] : kCodecs) {
    if (known == name) return codec;
  }
  throw UsageError(fmt::format("--compression {}: there are only {}", name, codecNames()));
}

}  // namespace kyr::tool
