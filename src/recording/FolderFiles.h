#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Folder.h"
#include "recording/Checksum.h"

/// File operations of recordings. Every failure is a std::exception that names the file and the
/// reason.
namespace kyr::recording {

/// Size and checksums of a file.
FileDigest digestFile(const std::filesystem::path& file);
FileDigest digestOf(const ByteSource& file);

/// Tells of the rows of a finished Parquet file what recording.json says, unless that is known
/// already, or the columns make no samples.
void describeRowsIn(std::shared_ptr<const DiskFile> stored, FileInfo& file);

/// Copies \p from to the new file \p to. Size and checksums are those of the bytes that were
/// copied.
FileDigest copyFile(const std::filesystem::path& from, const std::filesystem::path& to);

/// How a file came to be at a second place without a copy of its bytes.
enum class Sharing {
  none,    ///< it did not
  linked,  ///< the file has two names
  cloned   ///< there are two files, which share blocks of the disk
};

/// Lets \p to be the regular file \p from, as far as the file system can. A symbolic link is no
/// regular file.
Sharing shareFile(const std::filesystem::path& from, const std::filesystem::path& to);

/// Whether shareFile() would free nothing: the paths are names of one file, or the two files have
/// the same blocks of the disk.
bool areShared(const std::filesystem::path& a, const std::filesystem::path& b);

/// Whether the path is a folder itself, and no link to one.
bool isFolder(const std::filesystem::path& path);

/// Whether an entry is a link to the same thing as another one: a save links what others put into
/// the recording's folder.
bool isLinkOf(const std::filesystem::path& path, const std::filesystem::path& other);

/// Puts \p text in the place of a file of the folder in one step. It is on disk when the call
/// returns if \p syncs.
void replaceTextFile(const Folder& folder, const std::string& name, const std::string& text,
                     bool syncs);

}  // namespace kyr::recording
