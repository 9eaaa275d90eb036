#pragma once

#include <arrow/util/compression.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <vector>

#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingInfo.h"
#include "recording/LentFolder.h"
#include "recording/PackWriter.h"
#include "recording/RecordingSnapshot.h"
#include "safe/Content.h"

namespace kyr::recording {

/// Brings contents of a pool into the storage of a new recording: as files of their own, or into
/// packs.
class ContentSaver {
 public:
  /// \param fileOf  where the pool has its files
  /// \param store  of a safe pool, else null
  /// \param lent  the recording that the pool reads in place, if there is one; else null
  /// \param storage  folder of the recording's files
  ContentSaver(FileOf fileOf, std::shared_ptr<parquet::SharedStore> store,
               std::shared_ptr<const LentFolder> lent, std::filesystem::path storage,
               const SaveOptions& options);

  /// Saves the content of that id, and notes where it is.
  /// \throws std::exception naming the file
  void save(FileInfo& file);

  /// Completes the packs.
  std::vector<PackInfo> finish();

 private:
  // \param content  that has no file in the pool's directory; else null
  void saveFile(FileInfo& file, parquet::Content* content) const;
  bool linkLent(FileInfo& file) const;
  bool pack(FileInfo& file, parquet::Content& content);
  bool packFile(FileInfo& file);
  bool packRows(FileInfo& file, const parquet::SampleSchema& schema,
                ::arrow::Compression::type codec, const parquet::RowSlice& rows);

  FileOf fileOf_;
  std::shared_ptr<parquet::SharedStore> store_;
  std::shared_ptr<const LentFolder> lent_;
  std::filesystem::path storage_;
  std::size_t packBelow_;
  PackWriter packs_;
};

}  // namespace kyr::recording
