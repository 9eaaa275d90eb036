#include "CsvText.h"

#include <arrow/buffer.h>
#include <arrow/csv/parser.h>
#include <arrow/io/file.h>
#include <arrow/util/io_util.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Errors.h"
#include "Text.h"
#include "kyr/platform/Path.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

std::runtime_error cannotRead(const std::string& path, int error) {
  return std::runtime_error(
      fmt::format("{} cannot be read: {}", path, std::generic_category().message(error)));
}

// A pipe has no size and cannot be mapped into memory.
std::shared_ptr<::arrow::Buffer> readPipe(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw cannotRead(path, errno);
  std::string content{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  return ::arrow::Buffer::FromString(std::move(content));
}

std::shared_ptr<::arrow::Buffer> readContent(const std::string& path) {
  if (!fs::exists(path)) throw cannotRead(path, ENOENT);
  if (fs::is_directory(path)) throw cannotRead(path, EISDIR);
  if (!fs::is_regular_file(path)) return readPipe(path);
  if (fs::file_size(path) == 0) return ::arrow::Buffer::FromString("");
  auto opened = ::arrow::io::MemoryMappedFile::Open(path, ::arrow::io::FileMode::READ);
  if (!opened.ok()) throw cannotRead(path, ::arrow::internal::ErrnoFromStatus(opened.status()));
  const auto file = *std::move(opened);
  return check(file->ReadAt(0, check(file->GetSize())));
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

std::string_view CsvText::bodyText() const {
  return std::string_view(*content_).substr(bodyPosition_);
}

std::shared_ptr<::arrow::Buffer> CsvText::body() const {
  return ::arrow::SliceBuffer(content_, static_cast<std::int64_t>(bodyPosition_));
}

bool CsvText::hasRows() const {
  return bodyText().find_first_not_of("\r\n") != std::string_view::npos;
}

bool CsvText::hasQuotes() const { return bodyText().find('"') != std::string_view::npos; }

std::size_t CsvText::longestRow() const {
  const std::string_view text = bodyText();
  std::size_t longest = 0;
  if (hasQuotes()) {
    CsvRecordScanner rows = bodyRows();
    for (CsvRecord row; rows.next(row);) {
      if (row.isUnclosed) throw unclosedQuote(path_, row.line);
      longest = std::max(longest, row.text.size());
    }
    return longest;
  }
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    longest = std::max(longest, end - begin);
    begin = end + 1;
  }
  return longest;
}

std::int64_t CsvText::lineOfRow(std::int64_t row) const {
  CsvRecordScanner rows = bodyRows();
  CsvRecord record;
  while (row >= 0 && rows.next(record)) --row;
  return record.line;
}

std::optional<CsvRecord> CsvText::raggedRow() const {
  CsvRecordScanner rows = bodyRows();
  for (CsvRecord row; rows.next(row);) {
    if (row.cells != static_cast<std::int64_t>(header_.size())) return row;
  }
  return std::nullopt;
}

}  // namespace kyr::tool
