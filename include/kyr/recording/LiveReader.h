#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// \brief A signal of a recording that is being written. Its `rowCount` is that of its samples, or
/// of its times if it has times alone; codec and time span are left out.
struct LiveSignalInfo : SignalInfo {
  std::uint64_t timeRows = 0;
  std::uint64_t dataRows = 0;
};

/// \brief A recording that is being written, or was not finished, as of its last flush.
struct LiveRecordingInfo {
  int formatVersion = 0;
  bool isBeingWritten = false;          ///< whether its writer is alive
  std::vector<LiveSignalInfo> signals;  ///< in the order in which they were added
  std::vector<FileInfo> files;          ///< by ascending storage id; without checksums
};

/// \brief Whether \p folder holds a recording that is being written or was not finished.
KYR_PARQUET_EXPORT bool isLiveRecording(const Path& folder);

/// \brief What the last flush acknowledged. Changes nothing.
/// \throws std::runtime_error naming the file or folder and what is wrong with it
KYR_PARQUET_EXPORT LiveRecordingInfo describeLiveRecording(const Path& folder);

/// \brief Rows of a part of a signal, as StreamableSignal::getData() gives them.
struct LiveRows {
  std::vector<char> bytes;
  std::vector<std::vector<unsigned long>> dimensions;
  std::vector<int> sizes;
};

/// \brief Reads a recording that another process writes, flush by flush. One thread at a time.
class KYR_PARQUET_EXPORT LiveReader {
 public:
  /// \throws std::runtime_error as describeLiveRecording()
  explicit LiveReader(const Path& folder);
  ~LiveReader();
  LiveReader(const LiveReader&) = delete;
  LiveReader& operator=(const LiveReader&) = delete;

  const LiveRecordingInfo& info() const;

  /// \brief Take note of what was flushed meanwhile.
  /// \return false if the recording was finished meanwhile; info() is then as before, and
  ///         everything is to be had from describeRecording()
  /// \throws std::runtime_error as describeLiveRecording()
  bool refresh();

  /// \brief Rows [\p from, \p to) of a part; those beyond the end are left out.
  /// \param signal  of info()
  /// \throws std::runtime_error naming the file if it cannot be read; after a refresh() the rows
  ///         may lie in another
  LiveRows read(const LiveSignalInfo& signal, parquet::StreamableSignal::SignalPart part,
                std::uint64_t from, std::uint64_t to);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::recording
