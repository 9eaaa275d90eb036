#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// \brief A saved recording, opened: its signals in a pool of their own.
///
/// The pool reads the files of the saved recording where they lie, and never writes to them:
/// nothing done to it changes the saved recording until it is saved again. What changes is written
/// to a directory of the pool's own under the system's temporary directory, which is made when it
/// is first needed. Closing the recording deletes it, except what a signal that is still held
/// elsewhere needs.
///
/// Files are opened when rows of them are asked for, and may be closed and opened again: at most a
/// quarter of the descriptors that the process may have are used, and no more than 256 at a time.
/// Rows are compared with the checksums before they are handed out for the first time.
///
/// The saved recording must not be written into as long as this one is open. What happens if it is
/// replaced, renamed or deleted:
/// - Saving this pool to the folder that it was opened from replaces it safely. The pool reads the
///   new files from then on.
/// - If the folder is renamed, all signals stay readable.
/// - If others delete or replace the folder, reading a signal whose file is not open is an error
///   that names the file; other rows are never returned in place of its own. Files that are open
///   stay readable. Whoever needs all signals nevertheless calls
///   SignalPool::serializeSignalRecords() before, which copies all files to the pool's own
///   directory.
///
/// Movable, not copyable. One thread at a time.
class KYR_PARQUET_EXPORT Recording {
 public:
  ~Recording();
  Recording(Recording&&) noexcept;
  Recording& operator=(Recording&&) noexcept;

  /// \brief The pool of the recording's signals, each with its data type and category set.
  ///
  /// Signals may be added and changed; new ones never take a storage id of the recording's.
  parquet::SignalPool& pool();

  /// \brief What the recording held when it was opened.
  const RecordingInfo& info() const;

  /// \brief The descriptions of the recording's signals that the pool still has, to save it again.
  std::vector<SignalDescription> descriptions() const;

 private:
  friend KYR_PARQUET_EXPORT Recording openRecording(const Path& folder, Links links);
  friend KYR_PARQUET_EXPORT Recording openRecording(const Path& folder,
                                                    const std::vector<int>& signalIds, Links links);
  class Impl;
  explicit Recording(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// \brief Open the recording in \p folder, which is left as it is.
///
/// Every file must be there in its full size; its bytes are looked at when rows are read. The pool
/// is in the storage mode of the feature flag "fKYRUseParquetRowGroup", whichever mode wrote the
/// recording.
/// \throws std::runtime_error naming the file or folder and what is wrong with it: not a recording,
///         of a newer format version, a file missing or cut short. Reading damaged rows later is a
///         std::runtime_error, too, which names the file and tells what is damaged
/// \param links  as for describeRecording()
KYR_PARQUET_EXPORT Recording openRecording(const Path& folder, Links links = Links::refused);

/// \brief Open some signals only; files that they do not need are not looked at.
/// \throws std::invalid_argument naming an id that the recording does not have
KYR_PARQUET_EXPORT Recording openRecording(const Path& folder, const std::vector<int>& signalIds,
                                           Links links = Links::refused);

struct SaveOptions {
  /// Contents of fewer bytes share files, the packs, which any reader of Parquet reads. Many small
  /// signals are saved and opened many times faster so, above all from a pool that held them back
  /// (SafeStorage::holdBelow). 0: each content has a file. docs/format.md describes packs.
  std::size_t packBelow = 0;
  /// How samples are encoded in packs; other files are saved as the pool has them.
  parquet::SafeStorage::Encodings encodings = parquet::SafeStorage::Encodings::smallest;
  /// Whether the recording is on the disk when the call returns, and survives a power cut.
  bool sync = true;
  /// Whether a recording that is in the folder is replaced, also one that was made there while this
  /// one was being saved. If not, the call throws and leaves it as it is.
  bool replaces = true;
  /// Attributes of the recording. Without a value they are those of the recording that the pool was
  /// opened from, if it was opened from one.
  std::optional<Attributes> attributes = std::nullopt;
};

/// \brief Save the signals of \p pool as the recording \p folder.
///
/// Replaces a recording that is there; other entries of that folder are kept. The change is atomic:
/// killed at any moment, the folder holds either the old recording or the new one, whole. A killed
/// save may leave a folder `<folder>.saving-*` beside it, which findLeftovers() tells
/// (WorkingFolder.h). (A few file systems, such as NFS, cannot exchange two folders. There, a save
/// that is killed at the very end may leave no folder, with the old one whole in
/// `<folder>.saving-*.old`.)
///
/// Files of the pool that are complete are not copied: the recording shares them as hard links, if
/// the file system can do that. They are read once for their checksums. The pool may delete its
/// names, and nothing of kyr writes into a file that has several.
///
/// \param descriptions  signals of the pool by id. One without a description is called "signal
///         <id>". A described signal without data is kept, with no samples
/// \throws std::invalid_argument if two descriptions have the same id, a text is no valid UTF-8,
///         or an attribute is no JSON
/// \throws std::runtime_error if \p folder exists and is neither empty nor a recording, if a
///         signal's write failed or its file is missing, or if the recording cannot be written or
///         synced; \p folder is as it was then, and nothing is left beside it. If the very last
///         step fails, which is to sync the parent folder, the old recording is put back; after a
///         power cut the folder may hold either
KYR_PARQUET_EXPORT void saveRecording(parquet::SignalPool& pool,
                                      const std::vector<SignalDescription>& descriptions,
                                      const Path& folder);
KYR_PARQUET_EXPORT void saveRecording(parquet::SignalPool& pool,
                                      const std::vector<SignalDescription>& descriptions,
                                      const Path& folder, const SaveOptions& options);

/// \brief Change what a recording says of signals and of itself. Its samples stay as they are, and
/// no Parquet file is read or written.
///
/// The change is atomic and on the disk when the call returns. Others who read the recording are
/// not disturbed.
/// \param descriptions  of some signals, by id
/// \param attributes  all attributes that the recording has from now on
/// \throws std::invalid_argument if the recording has no such signal, the dimensions of a signal
///         change, a text is no valid UTF-8, or an attribute is no JSON
/// \throws std::runtime_error as describeRecording(), std::system_error if recording.json cannot be
///         written; the recording is as it was then
KYR_PARQUET_EXPORT void updateRecording(const Path& folder,
                                        const std::vector<SignalDescription>& descriptions,
                                        const Attributes& attributes);

}  // namespace kyr::recording
