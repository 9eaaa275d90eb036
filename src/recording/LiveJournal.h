#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/DiskFile.h"
#include "platform/Folder.h"
#include "recording/LiveFormat.h"
#include "recording/LivePacks.h"
#include "recording/OpenFolder.h"

namespace kyr::recording {

/// The journal of the recording that this process writes. Whoever has it locked is the writer.
class LiveJournal {
 public:
  /// Makes the file, and so takes the folder for this process.
  /// \throws std::system_error if there is one already
  explicit LiveJournal(const std::filesystem::path& folder);

  /// Adds a line. A journal that has become long is replaced by one with this line alone, whose
  /// name is on the disk when syncName() returns.
  /// \param isElsewhere  whether a pack on the disk has the line, too. Then it is synced only where
  ///        a lookout for the last line would else come upon nothing but lines that are not
  /// \throws std::system_error if that fails. The journal then ends with the line before, perhaps
  ///         with a part of the new one behind it
  void append(const JournalLine& line, bool syncs, bool isElsewhere);
  void syncName();
  /// Removes what a call that failed has left behind the last line.
  void removeRest();

 private:
  void replace(const std::string& text, bool syncs);

  Folder folder_;
  std::unique_ptr<DiskFile> file_;
  // Stays locked, for those who opened it before it was replaced.
  std::unique_ptr<DiskFile> previous_;
  std::uint64_t end_ = 0;
  std::uint64_t unsynced_ = 0;  // bytes before end_, if lines are synced
  bool hasRest_ = false;        // behind end_
  bool isNameNew_ = false;      // and perhaps not on the disk
};

/// What the journal says, and whether that is the last that was written to it.
struct JournalEnd {
  std::optional<JournalLine> line;
  std::uint64_t end = 0;  ///< where the line ends
  std::string fault;      ///< empty if the journal is sound
  bool isEmpty = false;
  /// Whether the last line was not written as a whole, so that no flush has acknowledged it.
  bool isTorn = false;
};

/// \param live  what recording.live.json says
/// \throws std::system_error if the journal cannot be read
JournalEnd readJournal(const Folder& folder, const LiveDescription& live);

/// The newest line that the growing packs of a synced recording have which nobody writes any more.
/// A flush whose line they have synced them, and perhaps not the journal.
/// \param packs  opened with checks of their batches
std::optional<JournalLine> lineInPacks(const LivePacks& packs, const LiveDescription& live);

/// Gives the journal of such a recording that line, unless it has a newer one or is damaged, and
/// removes what was not written as a whole. That of a recording which is not synced stays as it is.
/// \return what the journal says then
/// \throws std::system_error if that fails; it may be called again
JournalEnd completeJournal(const Folder& folder, const LivePacks& packs,
                           const LiveDescription& live);

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
