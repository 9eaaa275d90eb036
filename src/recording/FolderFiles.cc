#include "recording/FolderFiles.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

#include <system_error>
#include <utility>
#include <vector>

#include "files/ContentDigest.h"

namespace kyr::recording {

namespace fs = std::filesystem;

FileDigest digestFile(const fs::path& file) {
  return digestOf(DiskFile(file, DiskFile::Mode::readOnly));
}

FileDigest digestOf(const ByteSource& file) {
  FileDigester digester;
  forEachPieceOf(file, [&](std::string_view piece, std::uint64_t /*at*/) {
    digester.add(piece.data(), piece.size());
  });
  return digester.finish();
}

void describeRowsIn(std::shared_ptr<const DiskFile> stored, FileInfo& file) {
  if (!file.contentDigest.empty()) return;
  parquet::ContentReader content(std::make_shared<parquet::InputFile>(std::move(stored)),
                                 std::make_shared<parquet::RowGroupCache>());
  if (makesSamples(content.schema())) describeRows(file, summaryOf(content));
}

FileDigest copyFile(const fs::path& from, const fs::path& to) {
  const DiskFile in(from, DiskFile::Mode::readOnly);
  DiskFile out(to, DiskFile::Mode::createNew);
  FileDigester digester;
  forEachPieceOf(in, [&](std::string_view piece, std::uint64_t at) {
    digester.add(piece.data(), piece.size());
    out.writeAt(at, {piece});
  });
  out.close();
  return digester.finish();
}

Sharing shareFile(const fs::path& from, const fs::path& to) {
  std::error_code error;
  if (!fs::is_regular_file(fs::symlink_status(from, error))) return Sharing::none;
  fs::create_hard_link(from, to, error);
  if (!error) return Sharing::linked;
  // The limit of links, or another volume of the same file system.
  const DiskFile in(from, DiskFile::Mode::readOnly);
  const DiskFile out(to, DiskFile::Mode::createNew);
  if (::ioctl(out.descriptor(), FICLONE, in.descriptor()) == 0) return Sharing::cloned;
  fs::remove(to);
  return Sharing::none;
}

void replaceTextFile(const Folder& folder, const std::string& name, const std::string& text,
                     bool syncs) {
  const std::string fresh = name + ".new";
  folder.remove(fresh);
  const auto file = folder.open(fresh, DiskFile::Mode::createNew);
  try {
    file->writeAt(0, {text});
    if (syncs) file->syncAll();
    file->close();
    folder.rename(fresh, folder, name);
  } catch (...) {
    folder.tryRemove(fresh);
    throw;
  }
  if (syncs) folder.sync();
}

}  // namespace kyr::recording
