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
  static bool hasBefore(const T& live) { return !live.before.empty(); }
  static bool hasSync(const T& live) { return !live.sync.empty(); }
  static constexpr auto members = std::make_tuple(
      member<T, recording::JsonAttributes>("attributes", &T::attributes, hasAttributes),
      member<T, Signals>("before", &T::before, hasBefore), constant("format", "kyr live recording"),
      member<T>("formatVersion", &T::formatVersion), member<T>("sequence", &T::sequence),
      member<T, Signals>("signals", &T::signals), member<T>("sync", &T::sync, hasSync));
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
  const int known = header.format == kFormat.name ? kLiveFormatVersion : kFormatVersion;
  if (header.version && *header.version > known && header.hasValidChecksum) {
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
  auto live = readDocument<LiveDescription>(text, kFormat, source);
  std::set<int> ids;
  for (const SignalInfo& signal : live.signals) {
    if (ids.insert(signal.signalId).second) continue;
    throw std::runtime_error(
        fmt::format("{}: \"signals\" lists signal {} twice", source, signal.signalId));
  }
  return live;
}

// Older writers listed a signal twice that was deleted and added again. One of the two may name
// files.
std::vector<SignalInfo> salvageSignals(std::string_view text) {
  requireKnownVersion(text);
  std::vector<SignalInfo> signals;
  std::map<int, std::size_t> places;
  for (SignalInfo& found : salvageArray<SignalInfo, JsonSalvagedSignal>(text, "signals")) {
    const auto place = places.emplace(found.signalId, signals.size());
    if (place.second) {
      signals.push_back(std::move(found));
      continue;
    }
    SignalInfo& other = signals[place.first->second];
    if (namesFiles(found) || !namesFiles(other)) other = std::move(found);
  }
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

std::uint64_t journalTail(std::size_t signals) {
  // Each half has two of the longest lines, so that one of them is whole.
  constexpr std::uint64_t kLines = 4;
  constexpr std::uint64_t kLeast = std::uint64_t{1} << 20U;
  constexpr std::uint64_t kLineBytes = 100;  // four numbers and the checksum
  constexpr std::uint64_t kPartBytes = 42;   // two numbers
  return std::max(kLeast, kLines * (kLineBytes + kPartBytes * 2 * signals));
}

std::string writeJournalLine(const JournalLine& line) {
  const std::uint64_t common = commonest(line.rows);
  std::string text =
      fmt::format("{} {} {} {} ", line.sequence, line.number, line.rows.size(), common);
  for (std::size_t part = 0; part < line.rows.size(); ++part) {
    if (line.rows[part] != common) text += fmt::format("{}={} ", part, line.rows[part]);
  }
  return text + checksumOf(text).substr(0, kChecksumDigits) + "\n";
}

std::optional<JournalLine> readJournalLine(std::string_view text, const LiveDescription& live) {
  if (text.size() <= kChecksumDigits) return std::nullopt;
  std::string_view rest = text.substr(0, text.size() - kChecksumDigits);
  if (checksumOf(rest).substr(0, kChecksumDigits) != text.substr(rest.size())) return std::nullopt;
  const auto sequence = takeNumber(rest, ' ');
  const bool isNumbered = live.formatVersion >= kFirstVersionWithNumberedLines;
  const auto number = isNumbered ? takeNumber(rest, ' ') : std::optional<std::uint64_t>(0);
  const auto parts = sequence && number ? takeNumber(rest, ' ') : std::nullopt;
  const auto common = parts ? takeNumber(rest, ' ') : std::nullopt;
  if (!common) return std::nullopt;
  JournalLine line;
  line.sequence = *sequence;
  line.number = *number;
  if (line.sequence > live.sequence) return line;
  if (*parts > 2 * live.signals.size()) return std::nullopt;
  // A journal may be full of lines that claim many parts. Memory for these is allocated when the
  // line is known to be sound.
  std::vector<std::pair<std::size_t, std::uint64_t>> others;
  while (!rest.empty()) {
    const auto part = takeNumber(rest, '=');
    const auto rows = part ? takeNumber(rest, ' ') : std::nullopt;
    if (!rows || *part >= *parts) return std::nullopt;
    others.emplace_back(static_cast<std::size_t>(*part), *rows);
  }
  line.rows.assign(static_cast<std::size_t>(*parts), *common);
  for (const auto& [part, rows] : others) line.rows[part] = rows;
  return line;
}

void takeBackTo(const JournalLine& line, LiveDescription& live) {
  if (line.sequence >= live.sequence) return;
  std::map<int, const SignalInfo*> before;
  for (const SignalInfo& signal : live.before) before[signal.signalId] = &signal;
  if (before.empty()) return;
  for (SignalInfo& signal : live.signals) {
    const auto known = before.find(signal.signalId);
    if (known != before.end()) signal = *known->second;
  }
}

std::optional<PlacedLine> lastJournalLine(const DiskFile& journal, const LiveDescription& live,
                                          NewerLines newer) {
  constexpr std::uint64_t kFirstTail = std::uint64_t{1} << 14U;
  const std::uint64_t size = journal.size();
  const std::uint64_t most = std::min(size, journalTail(live.signals.size()));
  for (std::uint64_t tail = kFirstTail;; tail *= 8) {
    const std::uint64_t from = size - std::min(most, tail);
    std::string text(static_cast<std::size_t>(size - from), '\0');
    text.resize(journal.readAt(from, text.data(), text.size()));
    const std::string_view lines = text;
    // Without the line that begins before the text.
    const std::size_t first = from == 0 ? 0 : std::min(lines.find('\n'), lines.size());
    for (std::size_t end = lines.rfind('\n'); end != std::string::npos && end > first;) {
      const std::size_t before = end == 0 ? std::string::npos : lines.rfind('\n', end - 1);
      const std::size_t begin = before == std::string::npos ? 0 : before + 1;
      auto line = readJournalLine(lines.substr(begin, end - begin), live);
      if (line && (newer == NewerLines::found || line->sequence <= live.sequence)) {
        return PlacedLine{std::move(*line), from + end + 1};
      }
      end = before;
    }
    if (tail >= most) return std::nullopt;
  }
}

}  // namespace kyr::recording
