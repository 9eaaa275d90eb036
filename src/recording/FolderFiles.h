#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "platform/DiskFile.h"
#include "recording/Checksum.h"

/// File operations of recordings. Every failure is a std::exception that names the file and the
/// reason.
namespace kyr::recording {

/// Size and checksums of a file.
FileDigest digestFile(const std::filesystem::path& file);
FileDigest digestOf(const ByteSource& file);

/// Calls \p visit with each piece of a file, and where it begins.
void forEachPieceOf(const ByteSource& file,
                    const std::function<void(std::string_view, std::uint64_t)>& visit);

/// Copies \p from to the new file \p to. Size and checksums are those of the bytes that were copied.
FileDigest copyFile(const std::filesystem::path& from, const std::filesystem::path& to);

/// Puts \p text in the place of \p file in one step. It is on disk when the call returns if \p syncs.
void replaceTextFile(const std::filesystem::path& file, const std::string& text, bool syncs);

/// A folder that is removed with all that is in it when the object is destroyed. A failure to remove
/// it is ignored.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(std::filesystem::path path);
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

  /// From now on the folder, or what has its name then, is left alone.
  void release() { path_.clear(); }

 private:
  std::filesystem::path path_;
};

/// Puts \p fresh in the place of \p target (absent, empty or an older folder) in one step, and on
/// disk if it \p syncs; \p fresh is released.
/// \return where the older folder is now; empty if there was none
std::filesystem::path replaceFolder(TemporaryFolder& fresh, const std::filesystem::path& target,
                                    bool syncs);

}  // namespace kyr::recording
