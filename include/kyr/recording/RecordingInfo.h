#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/Links.h"
#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::recording {

/// \brief What is said of a recording as a whole, such as the model that was simulated: values by
/// name. Names are UTF-8 and not empty; a value is the text of a JSON value, such as `"pump 7"`
/// with the quotation marks, `1.5` or `[1,2]`.
using Attributes = std::map<std::string, std::string>;

/// \brief What a host tells about a signal and the pool does not know. All text is UTF-8.
struct SignalDescription {
  int signalId = 0;
  std::string name;
  std::string unit;                     ///< such as "m/s"; empty if unknown or none
  std::string description;              ///< free text; may be empty
  std::vector<std::size_t> dimensions;  ///< shape of a fixed-dimension signal; else empty
};

/// \brief Smallest and largest time of a signal [s]; both ends belong to it.
struct TimeSpan {
  double from = 0;
  double to = 0;
};

/// \brief One signal of a saved recording.
struct SignalInfo : SignalDescription {
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = Scalar;
  std::string compression;  ///< codec of the data file, "uncompressed" for none
  /// Samples, or times if the signal has times alone; 0 for a signal that was never written.
  std::uint64_t rowCount = 0;
  std::optional<TimeSpan> timeSpan;  ///< empty without times, or if one of them is infinite
  std::optional<int> timeStorageId;  ///< file of the time vector; empty if there is none
  std::optional<int> dataStorageId;  ///< file of the samples (and of time, in a "time" column)
};

/// \brief One content of a saved recording: a Parquet file `storage/<storageId>.parquet`, or rows
/// of a pack.
struct FileInfo {
  int storageId = 0;
  std::uint64_t size = 0;  ///< bytes; for a packed content its share of the pack, by rows
  std::uint64_t rowCount = 0;
  std::string checksum;  ///< XXH3, 128 bits, in 32 lower-case hex digits; none if packed

  std::optional<int> pack = std::nullopt;  ///< number of the pack that the content lies in, if any
  std::uint64_t firstRow = 0;              ///< row of the pack with which the content begins

  /// XXH3 with 64 bits of each block of 262,144 bytes of the file, of which the last may be
  /// shorter. Empty for a file of one block, a packed content, and recordings of older versions.
  std::vector<std::uint64_t> blocks = {};

  /// Digest of columns and rows, in 32 lower-case hex digits: contents with equal digests are
  /// equal, wherever they lie. Empty if it is not known, as in recordings of older versions.
  std::string contentDigest = {};
  /// Smallest and largest element of numbers; NaN does not count. Empty without one, and where it
  /// is not known.
  std::optional<double> minimum = std::nullopt;
  std::optional<double> maximum = std::nullopt;
};

/// \brief A Parquet file with many small contents: `storage/pack-<number>.parquet`.
struct PackInfo {
  int number = 0;
  std::uint64_t size = 0;  ///< bytes
  std::uint64_t rowCount = 0;
  std::string checksum;                    ///< the same as FileInfo::checksum
  std::vector<std::uint64_t> blocks = {};  ///< the same as FileInfo::blocks
};

/// \brief What recording.json says.
struct RecordingInfo {
  int formatVersion = 0;
  Attributes attributes;
  std::string records;  ///< text for SignalPool::deserializeSignalRecords; in version 1 only
  std::vector<SignalInfo> signals;  ///< by ascending signal id
  std::vector<FileInfo> files;      ///< by ascending storage id
  std::vector<PackInfo> packs;      ///< by ascending number
  /// Checksum of signals.parquet, as that of a file. Empty in versions 1 and 2, which have none.
  std::string signalsChecksum = {};
};

/// \brief The file that has the rows of a content, in the folder of the recording: such as
/// `storage/7.parquet`, or `storage/pack-0.parquet`. Versions 1 and 2 have no extension behind
/// storage ids.
KYR_PARQUET_EXPORT std::string pathOf(const RecordingInfo& info, const FileInfo& content);

/// \brief Read what a recording holds from its recording.json alone; no Parquet file is opened.
/// \throws std::runtime_error naming the file or folder and what is wrong with it: not a recording,
///         damaged, of a newer format version
/// \param links  inside of \p folder, which may be a link itself
KYR_PARQUET_EXPORT RecordingInfo describeRecording(const Path& folder,
                                                   Links links = Links::refused);

/// \brief A signal of a recording that is being written. Its `rowCount` is that of its samples, or
/// that of its times if it has only times. Codec and time span are left out.
struct LiveSignalInfo : SignalInfo {
  std::uint64_t timeRows = 0;
  std::uint64_t dataRows = 0;
};

/// \brief A recording that is being written or was not finished, as of its last flush.
struct LiveRecordingInfo {
  int formatVersion = 0;
  bool isBeingWritten = false;          ///< whether its writer is alive
  std::vector<LiveSignalInfo> signals;  ///< in the order in which they were added
  std::vector<FileInfo> files;          ///< by ascending storage id; without checksums
  Attributes attributes;
};

/// \brief Whether \p folder holds a recording that is being written or was not finished.
KYR_PARQUET_EXPORT bool isLiveRecording(const Path& folder);

/// \brief Read what the last flush of such a recording acknowledged.
/// \throws std::runtime_error naming the file or folder and what is wrong with it
/// \param links  as for describeRecording()
KYR_PARQUET_EXPORT LiveRecordingInfo describeLiveRecording(const Path& folder,
                                                           Links links = Links::refused);

/// \brief Check a recording against itself, down to every bit of every file.
///
/// Checksums, sizes, that each file opens as Parquet with the rows and columns its signals need,
/// row counts of time against data, sample shapes, files that no record names.
/// \return one line per fault, naming the file or signal; empty for a sound recording
/// \throws std::runtime_error if recording.json cannot be made sense of, as describeRecording()
/// \param links  as for describeRecording(); a link that is refused is a fault
KYR_PARQUET_EXPORT std::vector<std::string> verifyRecording(const Path& folder,
                                                            Links links = Links::refused);

}  // namespace kyr::recording
