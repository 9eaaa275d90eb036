#pragma once

#include <memory>
#include <string>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

class ParquetSignal;
struct SafeStorage;
class SignalPoolImpl;
class StreamableSignal;

/// \brief The signals of one storage directory, by an id that the host assigns.
///
/// This is the library's entry object. Each time a directory is set the feature flag
/// "fKYRUseParquetRowGroup" decides the pool's storage mode:
///
/// - off, whole-file mode: signals are `ParquetSignal`, written in one go; ask getSignal();
/// - on, row-group mode: signals are `StreamableSignal`, appended piece by piece; ask
///   getStreamableSignal().
///
/// Only a `StreamableSignal` reads windows of rows. So a host that wants windows needs row-group
/// mode, or SafeStorage (below).
///
/// A signal removed from the pool stays usable for whoever still holds it; its files are deleted
/// when the last holder lets go. The directory is working storage: destroying the pool deletes the
/// files in it, but not the directory; a pool with SafeStorage also removes a temporary directory
/// that it made itself. To keep the files, save a recording first.
///
/// With SafeStorage, or with the feature flag "fKYRUseSafeStorage" on when a directory is set, the
/// pool gives other guarantees, which docs/guarantees.md lists. It then hands out both kinds of
/// signals in either storage mode; the mode decides only which kind deserializeSignalRecords()
/// makes.
///
/// One thread at a time, the signals included. Not copyable.
class KYR_PARQUET_EXPORT SignalPool {
 public:
  /// \brief A pool over a new directory under the system's temporary directory.
  SignalPool();

  /// \brief A pool over \p directory, which is created if it does not exist.
  /// \throws std::filesystem::filesystem_error if it cannot be created
  /// \throws std::invalid_argument, std::out_of_range  in whole-file mode, if it holds an entry
  ///         whose name does not begin with a storage id
  explicit SignalPool(const Path& directory);

  /// \brief A pool with SafeStorage over a new directory, or over \p directory.
  ///
  /// Files that are there already stay untouched, and their ids are not given again.
  /// \throws std::invalid_argument if a batch would have no rows or bytes
  explicit SignalPool(const SafeStorage& storage);
  SignalPool(const Path& directory, const SafeStorage& storage);
  ~SignalPool();
  SignalPool(const SignalPool&) = delete;
  SignalPool& operator=(const SignalPool&) = delete;

  /// \brief Store new signals in \p directory from now on, in the mode of the feature flag.
  ///
  /// Signals that exist keep their files and the mode they were made in.
  void setParquetDirectory(const Path& directory);
  Path getParquetDirectory();

  /// \brief The whole-file signal \p id, made empty when there is no signal of that id.
  /// \return an empty pointer if \p id is a streamable signal
  /// \throws std::runtime_error for an unknown id in row-group mode
  std::shared_ptr<ParquetSignal> getSignal(const int& id);

  /// \brief The streamable signal \p id, made empty when there is no signal of that id.
  /// \return an empty pointer if \p id is a whole-file signal
  /// \throws std::runtime_error for an unknown id in whole-file mode
  std::shared_ptr<StreamableSignal> getStreamableSignal(const int& id);

  bool checkSignalExists(const int& id);

  /// \brief Whether signal \p id holds stored data.
  /// \throws std::bad_variant_access if the signal is of the other mode than the flag says now; not
  ///         in a pool with SafeStorage
  bool isDataOwner(const int& id) const;

  /// \brief Drop signal \p id; nothing if there is none.
  void deleteSignal(const int& id);

  /// \brief Whether the pool has no signal at all, written or not.
  bool isEmpty();

  /// \brief Which files belong to which signal, as JSON: an array of
  /// `{"dataStorageId":[1],"signalId":3,"timeStorageId":[0]}`, -554114 for a part without storage.
  ///
  /// Signals without data are left out, and the order means nothing. Streamable signals are
  /// finished first. All the files are in the pool's directory afterwards: with SafeStorage,
  /// contents that were in memory only, or in files that lie elsewhere, get files there.
  /// \throws std::bad_variant_access if a signal is of the other mode than the flag says now; not
  ///         in a pool with SafeStorage
  std::string serializeSignalRecords() const;

  /// \brief Make the signals of such a text over this pool's directory.
  ///
  /// Signals of the same ids are replaced, and others stay. Data type and category are not part of
  /// the text: set them before reading.
  /// \throws nlohmann::json::exception (a std::exception) for malformed text or members
  /// \throws std::invalid_argument for an empty id array; signals made before it stay
  void deserializeSignalRecords(const std::string& text);

  /// \brief Name and unit of signal \p id, which need not exist yet: UTF-8, for the files to carry.
  ///
  /// With SafeStorage, each file says in its key-value metadata, under "kyr.signals", to which
  /// parts of which signals it belonged when it was made. Without, no file says it.
  /// \throws std::invalid_argument if a text is no valid UTF-8
  void describeSignal(const int& id, const std::string& name, const std::string& unit);

  /// \brief Bring all rows of all signals to disk, in files that are complete, and go on.
  ///
  /// See StreamableSignal::flush(). Does nothing in a pool without signals.
  /// \throws std::logic_error in a pool without SafeStorage
  /// \throws std::exception naming the file if one cannot be written; no row is lost, and the call
  ///         may be repeated
  void flush();

  /// \brief Drop all signals and go on in a new temporary directory.
  void reset();

  /// \brief Drop all signals and go on in \p directory, which is not created here.
  void reset(const Path& directory);

 private:
  friend class PoolAccess;
  std::unique_ptr<SignalPoolImpl> impl_;
};

}  // namespace kyr::parquet
