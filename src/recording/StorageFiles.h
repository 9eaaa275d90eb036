#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "files/InputFile.h"
#include "files/growing/FileRecovery.h"
#include "kyr/recording/RecordingInfo.h"
#include "platform/Folder.h"

namespace kyr::recording {

/// What can be had of a Parquet file of a storage folder that nobody writes any more.
struct RecoveredStorage {
  std::shared_ptr<::arrow::Schema> schema;  ///< null if nothing can be read
  std::uint64_t rows = 0;                   ///< at the beginning; all of them are sound
  std::string damage;                       ///< what is wrong; empty if the file is sound
  bool isGrowing = false;                   ///< whether it can be completed, and cut behind a batch
  bool isComplete = false;
  std::uint64_t bytesCut = 0;  ///< so far

  bool isReadable() const { return schema != nullptr; }
};

/// A signal that a file belonged to when it was made.
struct PartClaim {
  SignalInfo signal;
  bool isTime = false;
};

/// The files of a storage folder. Looking at them changes nothing; withRows() does.
///
/// What the system reports is a std::system_error that names the file. It is no damage: the next
/// attempt may succeed.
class StorageFiles {
 public:
  /// \param stated  what a damaged recording.json says of the files, as far as it can be read
  StorageFiles(Folder folder, const std::vector<FileInfo>& stated);

  /// The ids of the files, ascending.
  const std::vector<int>& ids() const { return ids_; }
  /// The name of the file of that id. A recording that an older version wrote has other names.
  std::string nameOf(int id) const;
  /// Gives the file the name that it has in recordings of this version.
  void rename(int id);

  /// Reads the whole file: each batch is compared with its checksum, other files with the stated
  /// one. Of files without any checksum, all pages must be readable.
  const RecoveredStorage& file(int id);

  /// The signals that the file says it belonged to.
  std::vector<PartClaim> claims(int id);

  /// One time from a time file; empty if it cannot be read.
  std::optional<double> time(int id, std::uint64_t row);

  /// A file with the first \p rows rows of the file \p id and no more: the file itself, perhaps
  /// cut, or a new one. The file has that many sound rows.
  /// \param mayCut  whether nobody needs the other rows
  int withRows(int id, std::uint64_t rows, bool mayCut);

 private:
  std::string pathOf(int id) const { return (folder_.path() / nameOf(id)).string(); }
  std::unique_ptr<DiskFile> open(int id) const { return folder_.open(nameOf(id)); }
  std::shared_ptr<parquet::InputFile> openAny(int id) const;
  RecoveredStorage look(int id) const;
  void lookAtPages(int id, RecoveredStorage& found) const;
  bool cutBehind(int id, std::uint64_t rows);
  void noteCut(int id, const parquet::RecoveryReport& report);
  int copyRows(int id, std::uint64_t rows);
  void copyRows(int id, std::uint64_t rows, std::shared_ptr<DiskFile> copy) const;

  Folder folder_;
  std::map<int, std::string> checksums_;  // that were stated
  std::vector<int> ids_;
  int nextId_ = 0;
  std::map<int, RecoveredStorage> files_;
  std::map<std::pair<int, std::uint64_t>, int> copies_;
};

}  // namespace kyr::recording
