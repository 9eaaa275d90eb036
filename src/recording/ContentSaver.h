#pragma once

#include <arrow/util/compression.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
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

  /// Saves the content of that id.
  /// \param file  receives where the content is, by the end of finish(), and has to live until then
  /// \throws std::exception naming the file
  void save(FileInfo& file);

  /// Completes the packs, and describes the files.
  std::vector<PackInfo> finish();

 private:
  // A content that has a file of its own.
  struct OwnFile {
    FileInfo* info = nullptr;
    parquet::Content* content = nullptr;  // if it has no file in the pool's directory
    std::filesystem::path from;           // in the pool's directory; empty if the file is written
    std::string checksum;                 // that a lent file has to have
  };

  bool linkLent(FileInfo& file, parquet::Content& content);
  // Writes a content that has no file in the pool's directory.
  void write(OwnFile& file);
  void describeFiles();
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
  std::vector<OwnFile> files_;
};

}  // namespace kyr::recording
