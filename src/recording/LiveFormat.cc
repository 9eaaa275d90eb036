#include "recording/LiveFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "recording/Checksum.h"
#include "recording/JsonDocument.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingMembers.h"

namespace kyr {

template <>
struct JsonObject<recording::LiveDescription> {
  using T = recording::LiveDescription;
  using Signals = JsonArray<recording::SignalInfo, recording::JsonLiveSignal>;
  static bool hasAttributes(const T& live) { return !live.attributes.empty(); }
  static constexpr auto members = std::make_tuple(
      member<T, recording::JsonAttributes>("attributes", &T::attributes, hasAttributes),
      constant("format", "kyr live recording"), member<T>("formatVersion", &T::formatVersion),
      member<T>("sequence", &T::sequence), member<T, Signals>("signals", &T::signals));
};

}  // namespace kyr

namespace kyr::recording {

namespace {

constexpr DocumentFormat kFormat{"kyr live recording", kLiveFormatVersion, "live recording"};
constexpr std::size_t kChecksumDigits = 16;

// A sound document of a later version is not a damaged one.
void requireKnownVersion(std::string_view text) {
  DocumentHeader header;
  try {
    header = readHeader(text);
  } catch (const JsonSyntaxError&) {
    return;
  }
  if (header.version && *header.version > std::max(kFormatVersion, kLiveFormatVersion) &&
      header.hasValidChecksum) {
    throw std::runtime_error(fmt::format(
        "format version {} is newer than what is known here: use a newer version of kyr",
        *header.version));
  }
}

// The values of an array that can be read, up to the place where the text is no JSON any more.
// Others are skipped.
template <typename T, typename Format>
std::vector<T> salvageArray(std::string_view text, std::string_view member) {
  std::vector<T> found;
  JsonReader in(text);
  const auto takeValue = [&] {
    const std::size_t begin = in.position();
    const int depth = in.depth();
    try {
      T value;
      Format::read(in, value);
      found.push_back(std::move(value));
    } catch (const JsonValueError&) {
      in.rewind(begin, depth);
      in.skip();
    }
  };
  try {
    in.takeObject([&](std::string_view name) {
      if (name != member || !in.takeArray(takeValue)) in.skip();
    });
  } catch (const JsonSyntaxError&) {
    return found;
  }
  return found;
}

// Takes a number off the front of a text, and the character that must follow it.
std::optional<std::uint64_t> takeNumber(std::string_view& text, char follower) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data() + text.size() || *end != follower) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()) + 1);
  return number;
}

std::uint64_t commonest(const std::vector<std::uint64_t>& rows) {
  std::map<std::uint64_t, std::size_t> counts;
  for (const std::uint64_t count : rows) ++counts[count];
  const auto most =
      std::max_element(counts.begin(), counts.end(),
                       [](const auto& a, const auto& b) { return a.second < b.second; });
  return most == counts.end() ? 0 : most->first;
}

}  // namespace

std::string writeLiveJson(const LiveDescription& live) {
  JsonWriter out(JsonWriter::Layout::indented);
  JsonValue<LiveDescription>::write(out, live);
  return withChecksum(out.take(), JsonWriter::Layout::indented);
}

LiveDescription readLiveJson(std::string_view text, const std::string& source) {
  return readDocument<LiveDescription>(text, kFormat, source);
}

std::vector<SignalInfo> salvageSignals(std::string_view text) {
  requireKnownVersion(text);
  auto signals = salvageArray<SignalInfo, JsonLiveSignal>(text, "signals");
  std::set<int> ids;
  signals.erase(
      std::remove_if(signals.begin(), signals.end(),
                     [&](const SignalInfo& signal) { return !ids.insert(signal.signalId).second; }),
      signals.end());
  return signals;
}

Attributes salvageAttributes(std::string_view text) {
  Attributes found;
  JsonReader in(text);
  try {
    in.takeObject([&](std::string_view name) {
      if (name == "attributes") return JsonAttributes::read(in, found);
      in.skip();
    });
  } catch (const std::runtime_error&) {
    return found;
  }
  return found;
}

std::vector<FileInfo> salvageFiles(std::string_view text) {
  return salvageArray<FileInfo, JsonValue<FileInfo>>(text, "files");
}

std::string writeJournalLine(const JournalLine& line) {
  const std::uint64_t common = commonest(line.rows);
  std::string text = fmt::format("{} {} {} ", line.sequence, line.rows.size(), common);
  for (std::size_t part = 0; part < line.rows.size(); ++part) {
    if (line.rows[part] != common) text += fmt::format("{}={} ", part, line.rows[part]);
  }
  return text + checksumOf(text).substr(0, kChecksumDigits) + "\n";
}

std::optional<JournalLine> readJournalLine(const std::string& text) {
  if (text.size() <= kChecksumDigits) return std::nullopt;
  const std::size_t end = text.size() - kChecksumDigits;
  if (checksumOf(text.substr(0, end)).compare(0, kChecksumDigits, text, end) != 0) {
    return std::nullopt;
  }
  constexpr std::uint64_t kMaxParts = std::uint64_t{1} << 26U;
  std::string_view rest = std::string_view(text).substr(0, end);
  const auto sequence = takeNumber(rest, ' ');
  const auto parts = sequence ? takeNumber(rest, ' ') : std::nullopt;
  const auto common = parts ? takeNumber(rest, ' ') : std::nullopt;
  if (!common || *parts > kMaxParts) return std::nullopt;
  JournalLine line;
  line.sequence = *sequence;
  line.rows.assign(static_cast<std::size_t>(*parts), *common);
  while (!rest.empty()) {
    const auto part = takeNumber(rest, '=');
    const auto rows = part ? takeNumber(rest, ' ') : std::nullopt;
    if (!rows || *part >= *parts) return std::nullopt;
    line.rows[static_cast<std::size_t>(*part)] = *rows;
  }
  return line;
}

std::optional<JournalLine> lastJournalLine(const DiskFile& journal, std::uint64_t sequence) {
  constexpr std::uint64_t kFirstTail = std::uint64_t{1} << 14U;
  const std::uint64_t size = journal.size();
  for (std::uint64_t tail = kFirstTail;; tail *= 8) {
    const std::uint64_t from = size - std::min(size, tail);
    std::string text(static_cast<std::size_t>(size - from), '\0');
    text.resize(journal.readAt(from, text.data(), text.size()));
    // Without the line that begins before the text.
    const std::size_t first = from == 0 ? 0 : std::min(text.find('\n'), text.size());
    for (std::size_t end = text.rfind('\n'); end != std::string::npos && end > first;) {
      const std::size_t before = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
      const std::size_t begin = before == std::string::npos ? 0 : before + 1;
      auto line = readJournalLine(text.substr(begin, end - begin));
      if (line && line->sequence <= sequence) return line;
      end = before;
    }
    if (from == 0) return std::nullopt;
  }
}

}  // namespace kyr::recording
