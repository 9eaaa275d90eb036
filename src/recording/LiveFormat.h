#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"
#include "platform/DiskFile.h"

/// The two files of a recording that is being written; docs/format.md describes them.
namespace kyr::recording {

constexpr int kLiveFormatVersion = 1;

/// What recording.live.json says.
struct LiveDescription {
  std::uint64_t sequence = 0;  ///< one more each time the document is rewritten
  /// In the order in which they were added, which only ever grows at the end.
  std::vector<SignalInfo> signals;
};

std::string writeLiveJson(const LiveDescription& live);

/// \param source  name of the file for error texts
/// \throws std::runtime_error naming the source and what is wrong
LiveDescription readLiveJson(const std::string& text, const std::string& source);

/// The signals of a damaged recording.live.json or recording.json, as far as they can be made out;
/// none if it is no JSON any more.
/// \throws std::runtime_error if it is not damaged, but of a newer format version
std::vector<SignalInfo> salvageSignals(const std::string& text);

/// One flush: how many rows each part had. Parts are the times and the data of the first signal, of
/// the second, and so on.
struct JournalLine {
  std::uint64_t sequence = 0;  ///< of the recording.live.json that the parts are from
  std::vector<std::uint64_t> rows;
};

/// With its line feed.
std::string writeJournalLine(const JournalLine& line);

/// Of a line without its line feed; none if it is not whole.
std::optional<JournalLine> readJournalLine(const std::string& text);

/// The last whole line that is of no later recording.live.json than \p sequence.
/// \throws std::system_error if the file cannot be read
std::optional<JournalLine> lastJournalLine(const DiskFile& journal, std::uint64_t sequence);

}  // namespace kyr::recording
