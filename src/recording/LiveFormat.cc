#include "recording/LiveFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "recording/Checksum.h"
#include "recording/RecordingFormat.h"
#include "recording/SignalJson.h"

namespace kyr::recording {

namespace {

using nlohmann::json;

constexpr const char* kLiveFormatName = "kyr live recording";
constexpr std::size_t kChecksumDigits = 16;

LiveDescription liveFromJson(const json& document) {
  if (!document.is_object() || document.value("format", "") != kLiveFormatName) {
    throw std::runtime_error("not the description of a live recording");
  }
  const int version = document.at("formatVersion").get<int>();
  if (version > kLiveFormatVersion) {
    throw std::runtime_error(fmt::format(
        "format version {} is newer than {}, the newest that is known here: use a newer "
        "version of kyr",
        version, kLiveFormatVersion));
  }
  if (document.at("xxh3_128").get<std::string>() != documentChecksum(document)) {
    throw std::runtime_error("damaged: its checksum does not match its content");
  }
  LiveDescription live;
  document.at("sequence").get_to(live.sequence);
  for (const json& signal : document.at("signals")) {
    live.signals.push_back(describedFromJson(signal));
  }
  return live;
}

// A sound document of a later version is no damaged one.
void requireKnownVersion(const json& document) {
  const json version = document.value("formatVersion", json());
  const json checksum = document.value("xxh3_128", json());
  if (version.is_number_integer() && version > std::max(kFormatVersion, kLiveFormatVersion) &&
      checksum == documentChecksum(document)) {
    throw std::runtime_error(fmt::format(
        "format version {} is newer than what is known here: use a newer version of kyr",
        version.get<int>()));
  }
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
  json document = {{"format", kLiveFormatName},
                   {"formatVersion", kLiveFormatVersion},
                   {"sequence", live.sequence},
                   {"signals", json::array()}};
  for (const SignalInfo& signal : live.signals) {
    document["signals"].push_back(describedJson(signal));
  }
  document["xxh3_128"] = documentChecksum(document);
  return document.dump(1) + "\n";
}

LiveDescription readLiveJson(const std::string& text, const std::string& source) {
  try {
    return liveFromJson(json::parse(text));
  } catch (const json::parse_error& error) {
    throw std::runtime_error(
        fmt::format("{}: damaged: no valid JSON at byte {}", source, error.byte));
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("{}: {}", source, error.what()));
  }
}

std::vector<SignalInfo> salvageSignals(const std::string& text) {
  std::vector<SignalInfo> signals;
  const json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object() || !document.contains("signals")) return signals;
  requireKnownVersion(document);
  std::set<int> ids;
  for (const json& object : document["signals"]) {
    try {
      SignalInfo signal = describedFromJson(object);
      requireText(signal);
      if (ids.insert(signal.signalId).second) signals.push_back(std::move(signal));
    } catch (const std::exception&) {
      continue;  // its files are found by themselves
    }
  }
  return signals;
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
