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
#include "csv/InputDecoder.h"

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

void copyDecoded(const std::string& path, int input, const std::string& encoding,
                 const std::string& copy) {
  constexpr std::size_t kPieceBytes = std::size_t{1} << 18U;
  std::ofstream out(copy, std::ios::binary);
  InputDecoder decoder(path, encoding);
  std::vector<char> piece(kPieceBytes);
  std::string text;
  for (ssize_t got = 1; got != 0 && out; text.clear()) {
    stopIfInterrupted();
    got = ::read(input, piece.data(), piece.size());
    if (got < 0 && errno != EINTR) throw systemError(path, "read", errno);
    if (got > 0) decoder.decode({piece.data(), static_cast<std::size_t>(got)}, text);
    if (got == 0) decoder.finish(text);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
  }
  out.close();
  if (!out) throw systemError(copy, "written", errno);
}

// A pipe has no size, cannot be mapped and cannot be read twice.
std::shared_ptr<::arrow::Buffer> mapCopy(const std::string& path, const std::string& encoding) {
  const int input = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (input < 0) throw systemError(path, "read", errno);
  const std::unique_ptr<const int, void (*)(const int*)> closing(
      &input, [](const int* descriptor) { ::close(*descriptor); });
  const TemporaryFolder folder;
  const std::string copy = (folder.path().toFilesystem() / "pipe.csv").string();
  copyDecoded(path, input, encoding, copy);
  return mapFile(copy);
}

std::shared_ptr<::arrow::Buffer> map(const std::string& path, const std::string& encoding) {
  if (path == "-") return map("/dev/stdin", encoding);
  if (!fs::exists(path)) throw systemError(path, "read", ENOENT);
  if (fs::is_directory(path)) throw systemError(path, "read", EISDIR);
  if (!fs::is_regular_file(path)) return mapCopy(path, encoding);
  auto mapped = mapFile(path);
  const std::string_view first = std::string_view(*mapped).substr(0, InputDecoder::kFirstBytes);
  return InputDecoder::isPlain(first, encoding) ? mapped : mapCopy(path, encoding);
}

}  // namespace

MappedText::MappedText(const std::string& path, const std::string& encoding)
    : content_(map(path, encoding)) {}

// Neighbours share the first and the last page. They are mapped again when they are needed, too.
void MappedText::release(std::string_view part) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(part.data()) % page;
  ::madvise(const_cast<char*>(part.data()) - offset, part.size() + offset, MADV_DONTNEED);
}

}  // namespace kyr::tool
