#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::recording {

/// \brief What a Deduplicator did to a recording.
struct DeduplicationReport {
  std::uint64_t contents = 0;        ///< how many the recording has
  std::uint64_t sharedContents = 0;  ///< how many are in files that other recordings have, too
  std::uint64_t savedBytes = 0;      ///< size of the files that went, less that of new ones
  std::string leftAlone;             ///< why the recording was left as it was; empty if it was not
};

/// \brief Lets equal contents of many recordings be one file.
///
/// Contents that have the same digest are compared bit by bit. Those that are equal become hard
/// links to one file. Where the file system refuses another name for a file, they become copies
/// that share their blocks on the disk (reflinks). Where it refuses these as well, the contents
/// stay as they are, and later recordings share them instead. A pack is shared if most of its rows
/// are contents of both recordings; contents that are not in it get a pack of their own. A file
/// that is shared keeps its codec and encodings.
///
/// The new recording is written beside the old one, which means recording.json and the contents
/// that had a pack together with shared ones. It is compared with the old one before it takes its
/// place in one step. Whoever reads the old one meanwhile goes on. Signals, names and attributes
/// stay; storage ids may change. Files that recordings share are never written to, so that each
/// recording may be saved again, changed or deleted without regard to the others.
///
/// One thread at a time.
class KYR_PARQUET_EXPORT Deduplicator {
 public:
  Deduplicator();
  ~Deduplicator();
  Deduplicator(const Deduplicator&) = delete;
  Deduplicator& operator=(const Deduplicator&) = delete;

  /// \brief Take note of a finished recording, whose files others may share from now on.
  /// \throws std::runtime_error naming the folder and what is wrong, as describeRecording()
  void add(const Path& folder);

  /// \brief Let a finished recording share the files of those that were added, and add it.
  /// \throws std::exception naming the file or folder and what is wrong; the recording is as it was
  DeduplicationReport deduplicate(const Path& folder);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::recording
