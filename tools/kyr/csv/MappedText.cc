#include "csv/MappedText.h"

#include <arrow/io/file.h>
#include <arrow/util/io_util.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/TemporaryFolder.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

std::shared_ptr<::arrow::Buffer> mapFile(const std::string& path) {
  if (fs::file_size(path) == 0) return ::arrow::Buffer::FromString("");
  auto opened = ::arrow::io::MemoryMappedFile::Open(path, ::arrow::io::FileMode::READ);
  if (!opened.ok()) {
    throw systemError(path, "read", ::arrow::internal::ErrnoFromStatus(opened.status()));
  }
  const auto file = *std::move(opened);
  return check(file->ReadAt(0, check(file->GetSize())));
}

void copyPipe(const std::string& path, int pipe, const std::string& copy) {
  constexpr std::size_t kPieceBytes = std::size_t{1} << 18U;
  std::ofstream out(copy, std::ios::binary);
  std::vector<char> piece(kPieceBytes);
  for (ssize_t got = 1; got != 0 && out;) {
    stopIfInterrupted();
    got = ::read(pipe, piece.data(), piece.size());
    if (got < 0 && errno != EINTR) throw systemError(path, "read", errno);
    if (got > 0) out.write(piece.data(), got);
  }
  out.close();
  if (!out) throw systemError(copy, "written", errno);
}

// A pipe has no size, cannot be mapped and cannot be read twice.
std::shared_ptr<::arrow::Buffer> mapPipe(const std::string& path) {
  const int pipe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (pipe < 0) throw systemError(path, "read", errno);
  const std::unique_ptr<const int, void (*)(const int*)> closing(
      &pipe, [](const int* descriptor) { ::close(*descriptor); });
  const TemporaryFolder folder;
  const std::string copy = (folder.path().toFilesystem() / "pipe.csv").string();
  copyPipe(path, pipe, copy);
  return mapFile(copy);
}

std::shared_ptr<::arrow::Buffer> map(const std::string& path) {
  if (!fs::exists(path)) throw systemError(path, "read", ENOENT);
  if (fs::is_directory(path)) throw systemError(path, "read", EISDIR);
  return fs::is_regular_file(path) ? mapFile(path) : mapPipe(path);
}

}  // namespace

MappedText::MappedText(const std::string& path) : content_(map(path)) {}

// Neighbours share the first and the last page. They are mapped again when they are needed, too.
void MappedText::release(std::string_view part) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(part.data()) % page;
  ::madvise(const_cast<char*>(part.data()) - offset, part.size() + offset, MADV_DONTNEED);
}

}  // namespace kyr::tool
