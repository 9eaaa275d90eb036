#include "recording/JsonDocument.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <system_error>

#include "platform/Digest.h"
#include "recording/Checksum.h"

namespace kyr::recording {

namespace {

constexpr std::size_t kDigits = 32;
constexpr const char* kChecksumMember = "xxh3_128";

// The text without white space between its tokens.
std::string compacted(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
      ++at;
      continue;
    }
    const std::size_t begin = at++;
    if (c == '"') {
      while (at < text.size() && text[at] != '"') at += text[at] == '\\' ? 2 : 1;
      ++at;
    }
    result += text.substr(begin, at - begin);
  }
  return result;
}

// Whether the text ends with the checksum of what is before it.
bool endsWithChecksum(std::string_view text) {
  const std::size_t tail = std::string_view(R"(,"xxh3_128":""})").size() + kDigits;
  if (text.size() < tail) return false;
  const std::string_view content = text.substr(0, text.size() - tail);
  XXH3_state_t state;
  XXH3_128bits_reset(&state);
  addToDigest(state, content.data(), content.size());
  addToDigest(state, "}", 1);
  return text.substr(content.size()) ==
         fmt::format(R"(,"{}":"{}"}})", kChecksumMember, digitsOf(XXH3_128bits_digest(&state)));
}

void takeVersion(JsonReader& in, DocumentHeader& header) {
  std::string_view number;
  if (!in.takeNumber(number)) {
    in.skip();
    return;
  }
  std::int64_t version = 0;
  const char* end = number.data() + number.size();
  const auto [stop, error] = std::from_chars(number.data(), end, version);
  if (error == std::errc::result_out_of_range) version = std::numeric_limits<std::int64_t>::max();
  if (stop == end) header.version = version;
}

}  // namespace

bool hasValidChecksum(std::string_view text) {
  const std::size_t last = text.find_last_not_of(" \n\r\t");
  if (last == std::string_view::npos) return false;
  if (endsWithChecksum(text.substr(0, last + 1))) return true;
  const std::string compact = compacted(text);
  if (endsWithChecksum(compact)) return true;
  // Somebody else may have put the members in another order.
  auto document = nlohmann::json::parse(compact, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) return false;
  const auto checksum = document.find(kChecksumMember);
  if (checksum == document.end() || !checksum->is_string()) return false;
  const auto expected = checksum->get<std::string>();
  document.erase(checksum);
  return checksumOf(document.dump()) == expected;
}

std::string withChecksum(std::string text, JsonWriter::Layout layout) {
  const bool isIndented = layout == JsonWriter::Layout::indented;
  const std::string digits = checksumOf(isIndented ? compacted(text) : text);
  text.resize(text.size() - (isIndented ? 2 : 1));
  text += fmt::format(fmt::runtime(isIndented ? ",\n \"{}\": \"{}\"\n}}\n" : ",\"{}\":\"{}\"}}\n"),
                      kChecksumMember, digits);
  return text;
}

DocumentHeader readHeader(std::string_view text) {
  DocumentHeader header;
  JsonReader in(text);
  const bool isObject = in.takeObject([&](std::string_view name) {
    if (name == "formatVersion") {
      takeVersion(in, header);
    } else if (name != "format" || !in.takeText(header.format)) {
      in.skip();
    }
  });
  if (!isObject) in.skip();
  in.finish();
  header.hasValidChecksum = isObject && hasValidChecksum(text);
  return header;
}

void requireSound(std::string_view text, const DocumentFormat& format) {
  const DocumentHeader header = readHeader(text);
  if (header.format != format.name) {
    throw std::runtime_error(fmt::format("not the description of a {}", format.thing));
  }
  if (header.version && *header.version > format.newestVersion) {
    throw std::runtime_error(fmt::format(
        "format version {} is newer than {}, the newest that is known here: use a newer "
        "version of kyr",
        *header.version, format.newestVersion));
  }
  if (header.version && *header.version < 1) {
    throw std::runtime_error(fmt::format("format version {} does not exist", *header.version));
  }
  if (!header.hasValidChecksum) {
    throw std::runtime_error("damaged: its checksum does not match its content");
  }
}

}  // namespace kyr::recording
