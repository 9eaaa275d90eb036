#include "csv/CsvStream.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "cli/Interrupt.h"
#include "cli/Text.h"
#include "kyr/platform/Path.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{1} << 16U;
constexpr std::size_t kMaxRowBytes = std::size_t{1} << 24U;
constexpr std::chrono::milliseconds kFollowInterval(50);
constexpr std::chrono::milliseconds kHeaderPatience(200);

[[noreturn]] void fail(const std::string& name, const std::string& what) {
  throw std::runtime_error(name + what);
}

std::string reason(int error) { return std::generic_category().message(error); }

}  // namespace

CsvStream::CsvStream(const std::string& source, bool follows)
    : name_(source == "-" ? "standard input" : source),
      descriptor_(source == "-" ? STDIN_FILENO : ::open(source.c_str(), O_RDONLY | O_CLOEXEC)),
      follows_(follows) {
  if (descriptor_ < 0) fail(name_, " cannot be read: " + reason(errno));
}

CsvStream::~CsvStream() {
  if (descriptor_ != STDIN_FILENO) ::close(descriptor_);
}

CsvStream::Next CsvStream::next(CsvRecord& record, std::chrono::milliseconds patience) {
  // A row that does not end may keep bytes coming; the caller has other things to do meanwhile.
  const auto start = std::chrono::steady_clock::now();
  while (!takeRow(record)) {
    if (isAtEnd_) return Next::end;
    if (isInterrupted()) patience = std::chrono::milliseconds(0);
    if (!fill(patience) || isInterrupted()) return Next::pause;
    if (std::chrono::steady_clock::now() - start > patience) return Next::pause;
  }
  return Next::row;
}

bool CsvStream::takeRow(CsvRecord& record) {
  std::string_view text = std::string_view(buffer_).substr(begin_);
  // The second half of such a line end may be on its way.
  if (!isAtEnd_ && !text.empty() && text.back() == '\r') text.remove_suffix(1);
  CsvRecordScanner scanner(text, line_);
  const bool isRow = scanner.next(record);
  const auto end = static_cast<std::size_t>(record.text.data() + record.text.size() - text.data());
  const bool isWhole = !isRow || scanner.position() > end;
  if (!isWhole && !isAtEnd_) return false;
  isCutOff_ = isRow && !isWhole;
  begin_ += scanner.position();
  line_ = scanner.line();
  return isRow;
}

// Whether there is more to look at.
bool CsvStream::fill(std::chrono::milliseconds patience) {
  buffer_.erase(0, begin_);
  begin_ = 0;
  if (buffer_.size() > kMaxRowBytes) {
    fail(name_, fmt::format(", line {}: the row has no end", line_));
  }
  if (!waitForMore(patience)) return false;
  const std::size_t before = buffer_.size();
  buffer_.resize(before + kPieceBytes);
  const ssize_t got = ::read(descriptor_, &buffer_[before], kPieceBytes);
  const int error = errno;
  buffer_.resize(before + static_cast<std::size_t>(got > 0 ? got : 0));
  if (got < 0 && error != EINTR && error != EAGAIN) {
    fail(name_, " cannot be read: " + reason(error));
  }
  if (got > 0) taken_ += static_cast<std::uint64_t>(got);
  if (got != 0) return got > 0;
  if (follows_) {
    struct stat status {};
    if (::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<std::uint64_t>(status.st_size) < taken_) {
      fail(name_, " was cut short while it was followed");
    }
    std::this_thread::sleep_for(std::min(patience, kFollowInterval));
    return false;
  }
  isAtEnd_ = true;
  return true;
}

bool CsvStream::waitForMore(std::chrono::milliseconds patience) const {
  pollfd waited{descriptor_, POLLIN, 0};
  return ::poll(&waited, 1, static_cast<int>(patience.count())) > 0;
}

std::vector<std::string> CsvStream::header() {
  CsvRecord record;
  Next found = Next::pause;
  while (found == Next::pause) {
    stopIfInterrupted();
    found = next(record, kHeaderPatience);
  }
  if (found == Next::end) fail(name_, " is empty: the first line must name the columns");
  if (record.isUnclosed) {
    fail(name_, fmt::format(", line {}: a quotation mark is not closed", record.line));
  }
  std::string_view text = record.text;
  constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";
  if (text.substr(0, kUtf8Mark.size()) == kUtf8Mark) text.remove_prefix(kUtf8Mark.size());
  if (text.substr(0, 2) == "\xff\xfe" || text.substr(0, 2) == "\xfe\xff") {
    fail(name_, " is UTF-16 text: save it as UTF-8");
  }
  try {
    static_cast<void>(toUtf16(text));
  } catch (const std::invalid_argument&) {
    fail(name_, fmt::format(", line {}: the header is not UTF-8 text", record.line));
  }
  std::vector<std::string> cells;
  splitCells(text, cells);
  for (std::string& cell : cells) cell = std::string(trimmed(cell));
  return cells;
}

}  // namespace kyr::tool
