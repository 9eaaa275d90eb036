#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::recording {

/// \brief A new folder for intermediate files, which this user alone may enter. It is removed with
/// all that is in it when the object goes.
///
/// It is best made beside the recording for which it is needed: saveRecording() then takes the
/// files of a pool in it as they are, without copying them. A process that is killed leaves its
/// folder, which findLeftovers() tells.
class KYR_PARQUET_EXPORT WorkingFolder {
 public:
  /// \brief A folder for the recording \p folder: `<folder>.importing-<16 hexadecimal digits>`.
  /// \throws std::filesystem::filesystem_error, std::system_error  if it cannot be made
  static WorkingFolder beside(const Path& folder);

  /// \brief A folder `kyr-tmp-<16 hexadecimal digits>` in the system's directory for temporary
  /// files.
  /// \throws std::filesystem::filesystem_error, std::system_error  if it cannot be made
  static WorkingFolder temporary();

  ~WorkingFolder();
  WorkingFolder(WorkingFolder&&) noexcept;
  WorkingFolder& operator=(WorkingFolder&&) noexcept;

  Path path() const;

 private:
  class Impl;
  explicit WorkingFolder(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// \brief A folder that a killed process left, and that is no use to anybody.
struct Leftover {
  Path path;
  std::uint64_t bytes = 0;  ///< size of all its files
  /// Why removeLeftover() would leave it alone: somebody uses it, or it holds what kyr did not
  /// make. Empty if it can be removed.
  std::string inTheWay;
};

/// \brief Remove the files in the storage of a recording that its recording.json does not name.
/// Nothing is removed to which a symbolic link leads.
/// \param isDry  whether the call only tells, and removes nothing
/// \return the files, and what else is in the way there because kyr did not make it, by name
/// \throws std::runtime_error as describeRecording(): recordings that are being written are refused
/// \throws std::system_error naming a file that cannot be removed
KYR_PARQUET_EXPORT std::vector<Leftover> collectUnusedFiles(const Path& folder, bool isDry);

/// \brief The folders that saves and imports of the recording \p folder left beside it:
/// `<folder>.saving-*` and `<folder>.importing-*`. The recording need not exist.
///
/// Those of other names, and symbolic links, are not looked at.
KYR_PARQUET_EXPORT std::vector<Leftover> findLeftovers(const Path& folder);

/// \brief What kyr left in the system's directory for temporary files: folders `kyr-*`, and empty
/// folders `parquetStorage_*` of pools.
///
/// Only folders of this user are looked at. Pools and older versions do not lock their folders: one
/// of these counts as in use if it was changed within the last hour, or while a process was alive
/// that still runs and has this library loaded.
KYR_PARQUET_EXPORT std::vector<Leftover> findTemporaryLeftovers();

/// \brief Remove a leftover, unless something came in the way since it was found.
/// \return whether it was removed
/// \throws std::filesystem::filesystem_error naming what cannot be removed
KYR_PARQUET_EXPORT bool removeLeftover(const Leftover& leftover);

}  // namespace kyr::recording
