#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/DiskFile.h"
#include "platform/Folder.h"
#include "recording/LiveFormat.h"
#include "recording/OpenFolder.h"

namespace kyr::recording {

/// The journal of the recording that this process writes. Whoever has it locked is the writer.
class LiveJournal {
 public:
  /// Makes the file, and so takes the folder for this process.
  /// \throws std::system_error if there is one already
  explicit LiveJournal(const std::filesystem::path& folder);

  /// Adds a line; after a failure there may be a part of it, which the next call replaces. A
  /// journal that has become long is replaced by one with this line alone.
  void append(const JournalLine& line, bool syncs);

 private:
  void replace(const std::string& text, bool syncs);

  Folder folder_;
  std::unique_ptr<DiskFile> file_;
  // Stays locked, for those who opened it before it was replaced.
  std::unique_ptr<DiskFile> previous_;
  std::uint64_t end_ = 0;
};

/// What the journal says, and whether that is the last that was written to it.
struct JournalEnd {
  std::optional<JournalLine> line;
  std::string fault;  ///< empty if the journal is sound
};

/// \param sequence  that of recording.live.json
/// \throws std::system_error if the journal cannot be read
JournalEnd readJournal(const Folder& folder, std::uint64_t sequence);

/// Whether a process writes the recording in \p folder.
bool isBeingWritten(const OpenFolder& folder);

/// Keeps writers and other recoveries off a folder for as long as it lives.
class RecoveryLock {
 public:
  /// \throws std::runtime_error if somebody writes the recording
  explicit RecoveryLock(const Folder& folder);

 private:
  bool isNamed() const;

  std::unique_ptr<DiskFile> file_;  // null if the folder has no journal
  Folder folder_;
};

}  // namespace kyr::recording
