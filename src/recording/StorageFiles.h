#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// What became of a Parquet file of a storage folder that nobody writes any more.
struct RecoveredStorage {
  bool isReadable = false;
  bool isGrowing = false;  ///< whether it can be cut behind a batch
  std::uint64_t rows = 0;
  std::uint64_t bytesCut = 0;
};

/// A signal that a file belonged to when it was made.
struct PartClaim {
  SignalInfo signal;
  bool isTime = false;
};

/// The files of a storage folder, made complete where that is possible. A file is read when it is asked
/// for. Failures of the disk are exceptions that name the file.
class StorageFiles {
 public:
  explicit StorageFiles(std::filesystem::path directory);

  /// The ids of the files, ascending.
  const std::vector<int>& ids() const { return ids_; }

  const RecoveredStorage& file(int id);

  /// A file with the first \p rows rows of the file \p id and no more: the file itself, perhaps cut, or
  /// a new one. The file has that many rows.
  /// \param mayCut  whether nobody needs the other rows
  int withRows(int id, std::uint64_t rows, bool mayCut);

  /// The signals that the file says it belonged to.
  std::vector<PartClaim> claims(int id);

  /// A signal for a file that names none, as far as its columns tell.
  std::optional<SignalInfo> guess(int id);

  /// One time from a time file that grew; empty if it cannot be read.
  std::optional<double> time(int id, std::uint64_t row);

 private:
  std::filesystem::path pathOf(int id) const { return directory_ / std::to_string(id); }
  bool cutBehind(int id, std::uint64_t rows);
  int copyRows(int id, std::uint64_t rows);

  std::filesystem::path directory_;
  std::vector<int> ids_;
  int nextId_ = 0;
  std::map<int, RecoveredStorage> files_;
  std::map<std::pair<int, std::uint64_t>, int> copies_;
};

}  // namespace kyr::recording
