#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "kyr/recording/RecordingInfo.h"
#include "platform/DiskFile.h"

/// The two files of a recording that is being written; docs/format.md describes them.
namespace kyr::recording {

/// 1 has no growing packs. Before 3 the names of files in the storage folder have no extension.
/// Before 4 lines of the journal have no number, and packs have no lines.
constexpr int kLiveFormatVersion = 4;
constexpr int kFirstVersionWithNumberedLines = 4;

constexpr const char* kSyncFlush = "flush";

/// \brief Which contents a signal has, and of what kind they are.
struct SignalContents {
  explicit SignalContents(const SignalInfo& signal)
      : times(signal.timeStorageId),
        samples(signal.dataStorageId),
        type(signal.dataType),
        category(signal.category) {}

  bool isEmpty() const { return !times && !samples; }
  bool operator==(const SignalContents& other) const {
    return std::tie(times, samples, type, category) ==
           std::tie(other.times, other.samples, other.type, other.category);
  }
  /// The signal with these contents.
  SignalInfo of(SignalInfo signal) const {
    std::tie(signal.timeStorageId, signal.dataStorageId, signal.dataType, signal.category) =
        std::tie(times, samples, type, category);
    return signal;
  }

  std::optional<int> times;
  std::optional<int> samples;
  KYRSignalDataType type;
  KYRSignalCategory category;
};

/// What recording.live.json says.
struct LiveDescription {
  int formatVersion = kLiveFormatVersion;
  std::uint64_t sequence = 0;  ///< grows by one each time the document is rewritten
  /// In the order in which they were added. New ones come at the end; none ever leaves.
  std::vector<SignalInfo> signals;
  /// What the list said of some signals when the last line of the journal was written, if other
  /// contents took the place of those that they had then.
  std::vector<SignalInfo> before;
  Attributes attributes;
  std::string sync;  ///< kSyncFlush, or empty

  /// Whether all that a flush acknowledges is on the disk. Packs have lines of the journal then,
  /// and a line that was not written as a whole has acknowledged nothing.
  bool isSynced() const { return sync == kSyncFlush; }
};

std::string writeLiveJson(const LiveDescription& live);

/// \param source  name of the file for error texts
/// \throws std::runtime_error naming the source, the member that is wrong, and its value
LiveDescription readLiveJson(std::string_view text, const std::string& source);

/// Whether a file of times or samples is named.
inline bool namesFiles(const SignalInfo& signal) {
  return signal.timeStorageId || signal.dataStorageId;
}

/// The signals of a damaged recording.live.json or recording.json: those that can be read, up to
/// the place where the text is no JSON any more.
/// \throws std::runtime_error if the document is not damaged, but of a newer format version
std::vector<SignalInfo> salvageSignals(std::string_view text);

/// The attributes of such a document, or none if they cannot be read.
Attributes salvageAttributes(std::string_view text);

/// The files of a damaged recording.json, likewise.
std::vector<FileInfo> salvageFiles(std::string_view text);

/// How many rows each part had at a flush. The parts are the times of the first signal, its data,
/// the times of the second signal, and so on.
struct JournalLine {
  std::uint64_t sequence = 0;  ///< that of the recording.live.json which lists the signals
  std::uint64_t number = 0;    ///< one more for each line that is made; 0 in older recordings
  std::vector<std::uint64_t> rows;

  /// Whether this line of a recording was made after the other one.
  bool isNewerThan(const JournalLine& other) const { return number > other.number; }
};

/// The bytes at the end of a journal that are read for a line. Whatever becomes of the second half
/// of them, a whole line is in the first one.
/// \param signals  how many there are
std::uint64_t journalTail(std::size_t signals);

/// The text of a line, with its line feed.
std::string writeJournalLine(const JournalLine& line);

/// \param text  a line without its line feed
/// \return nothing if the line is damaged, or has more parts than the signals of \p live; without
///         rows if it is newer than \p live, which says nothing of its parts then
std::optional<JournalLine> readJournalLine(std::string_view text, const LiveDescription& live);

/// Makes the signals what they were when the line was written, if it is older than the list.
void takeBackTo(const JournalLine& line, LiveDescription& live);

struct PlacedLine {
  JournalLine line;
  std::uint64_t end = 0;  ///< where the next line begins in the journal
};

/// What becomes of lines that are newer than the list.
enum class NewerLines { skipped, found };

/// The last sound line, which is looked for in as many bytes as the last lines can have.
/// \throws std::system_error if the file cannot be read
std::optional<PlacedLine> lastJournalLine(const DiskFile& journal, const LiveDescription& live,
                                          NewerLines newer);

}  // namespace kyr::recording
