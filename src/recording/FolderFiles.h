#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "platform/DiskFile.h"

/// File operations of recordings, down to the disk. Every failure is a std::runtime_error that
/// names the file and the reason.
namespace kyr::recording {

struct FileDigest {
  std::uint64_t size = 0;
  std::string checksum;
};

/// Size and checksum of a file.
FileDigest digestFile(const std::filesystem::path& file);

/// Of a file that is open.
FileDigest digestOf(const DiskFile& file);

/// Calls \p visit with each piece of an open file, and where it lies.
void forEachPieceOf(const DiskFile& file,
                    const std::function<void(std::string_view, std::uint64_t)>& visit);

/// Copy \p from to the new file \p to; size and checksum are of the bytes that were copied.
FileDigest copyFile(const std::filesystem::path& from, const std::filesystem::path& to);

std::string readTextFile(const std::filesystem::path& file);
void writeTextFile(const std::filesystem::path& file, const std::string& text);

/// Put \p text in the place of \p file in one step; on disk when the call returns if \p syncs.
void replaceTextFile(const std::filesystem::path& file, const std::string& text, bool syncs);

/// Wait until the content of \p path, a file or a directory, is on disk.
void syncToDisk(const std::filesystem::path& path);

/// A folder that is removed, with all that is in it, when the object goes; a failure to remove it
/// is ignored.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(std::filesystem::path path);
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

  /// Leave the folder, or what took its name, alone from now on.
  void release() { path_.clear(); }

 private:
  std::filesystem::path path_;
};

/// Put \p fresh in the place of \p target (absent, empty or an older folder) in one step, and on
/// disk if it \p syncs; \p fresh is released. Returns where the older folder went; empty when there
/// was none.
std::filesystem::path replaceFolder(TemporaryFolder& fresh, const std::filesystem::path& target,
                                    bool syncs);

}  // namespace kyr::recording
