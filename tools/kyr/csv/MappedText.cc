#include "csv/CsvText.h"

#include <arrow/csv/parser.h>
#include <arrow/io/file.h>
#include <arrow/util/io_util.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/TemporaryFolder.h"
#include "cli/Text.h"
#include "kyr/platform/Path.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

std::runtime_error cannotRead(const std::string& path, int error) {
  return std::runtime_error(
      fmt::format("{} cannot be read: {}", path, std::generic_category().message(error)));
}

std::shared_ptr<::arrow::Buffer> mapFile(const std::string& path) {
  auto opened = ::arrow::io::MemoryMappedFile::Open(path, ::arrow::io::FileMode::READ);
  if (!opened.ok()) throw cannotRead(path, ::arrow::internal::ErrnoFromStatus(opened.status()));
  const auto file = *std::move(opened);
  return check(file->ReadAt(0, check(file->GetSize())));
}

// A pipe has no size and cannot be mapped into memory, nor read twice.
std::shared_ptr<::arrow::Buffer> readPipe(const std::string& path) {
  const int pipe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (pipe < 0) throw cannotRead(path, errno);
  const std::unique_ptr<const int, void (*)(const int*)> closing(
      &pipe, [](const int* descriptor) { ::close(*descriptor); });
  const TemporaryFolder folder;
  const std::string copy = (folder.path().toFilesystem() / "pipe.csv").string();
  std::ofstream out(copy, std::ios::binary);
  constexpr std::size_t kPieceBytes = std::size_t{1} << 18U;
  std::vector<char> piece(kPieceBytes);
  for (;;) {
    stopIfInterrupted();
    const ssize_t got = ::read(pipe, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw cannotRead(path, errno);
    if (got == 0) break;
    if (!out.write(piece.data(), got)) break;
  }
  out.close();
  if (!out)
    throw std::runtime_error(
        fmt::format("{} cannot be written: {}", copy, std::generic_category().message(errno)));
  if (fs::file_size(copy) == 0) return ::arrow::Buffer::FromString("");
  return mapFile(copy);
}

std::shared_ptr<::arrow::Buffer> readContent(const std::string& path) {
  if (!fs::exists(path)) throw cannotRead(path, ENOENT);
  if (fs::is_directory(path)) throw cannotRead(path, EISDIR);
  if (!fs::is_regular_file(path)) return readPipe(path);
  if (fs::file_size(path) == 0) return ::arrow::Buffer::FromString("");
  return mapFile(path);
}

std::runtime_error unclosedQuote(const std::string& path, std::int64_t line) {
  return std::runtime_error(fmt::format("{}, line {}: a quotation mark is not closed", path, line));
}

bool isUtf8(std::string_view text) {
  try {
    static_cast<void>(toUtf16(text));
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

std::vector<std::string> parseCells(std::string_view row) {
  auto options = ::arrow::csv::ParseOptions::Defaults();
  options.newlines_in_values = true;
  ::arrow::csv::BlockParser parser(options);
  std::uint32_t parsed = 0;
  check(parser.ParseFinal(row, &parsed));
  std::vector<std::string> cells;
  check(parser.VisitLastRow([&](const std::uint8_t* data, std::uint32_t size, bool /*quoted*/) {
    cells.emplace_back(trimmed({reinterpret_cast<const char*>(data), size}));
    return ::arrow::Status::OK();
  }));
  return cells;
}

}  // namespace

CsvText::CsvText(std::string path) : path_(std::move(path)), content_(readContent(path_)) {
  std::string_view text(*content_);
  for (const std::string_view mark : {"\xff\xfe", "\xfe\xff"}) {
    if (startsWith(text, mark)) {
      throw std::runtime_error(path_ + " is UTF-16 text: save it as UTF-8");
    }
  }
  constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";
  if (startsWith(text, kUtf8Mark)) bodyPosition_ = kUtf8Mark.size();
  readHeader(text.substr(bodyPosition_));
}

void CsvText::readHeader(std::string_view text) {
  CsvRecordScanner scanner(text, 1);
  CsvRecord record;
  if (!scanner.next(record)) {
    throw std::runtime_error(path_ + " is empty: the first line must name the columns");
  }
  if (record.isUnclosed) throw unclosedQuote(path_, record.line);
  if (!isUtf8(record.text)) {
    throw std::runtime_error(
        fmt::format("{}, line {}: the header is not UTF-8 text", path_, record.line));
  }
  header_ = parseCells(record.text);
  bodyPosition_ += scanner.position();
  bodyLine_ = scanner.line();
}

// Of pages that are shared with neighbours, too: what is needed is mapped again.
void CsvText::release(std::string_view part) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(part.data()) % page;
  ::madvise(const_cast<char*>(part.data()) - offset, part.size() + offset, MADV_DONTNEED);
}

void CsvText::throwUnreadable(const std::string& otherwise) const {
  std::string ragged;
  CsvRecordScanner scanner = rows();
  for (CsvRecord row; scanner.next(row);) {
    if (row.isUnclosed) throw unclosedQuote(path_, row.line);
    if (!ragged.empty() || row.cells == static_cast<std::int64_t>(header_.size())) continue;
    ragged = fmt::format("{}, line {}: {}, but the header has {}", path_, row.line,
                         counted(static_cast<std::uint64_t>(row.cells), "cell"), header_.size());
  }
  throw std::runtime_error(ragged.empty() ? path_ + " cannot be read: " + otherwise : ragged);
}

}  // namespace kyr::tool
