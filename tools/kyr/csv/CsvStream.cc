#include "csv/CsvStream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "csv/CsvMessages.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{1} << 16U;
constexpr std::size_t kMaxRowBytes = std::size_t{1} << 24U;
constexpr std::chrono::milliseconds kFollowInterval(50);
constexpr std::chrono::milliseconds kHeaderPatience(200);

}  // namespace

CsvStream::CsvStream(const std::string& source, const CsvOptions& options, bool follows)
    : name_(source == "-" ? "standard input" : source),
      options_(options),
      decoder_(name_, options.encoding),
      descriptor_(source == "-" ? STDIN_FILENO : ::open(source.c_str(), O_RDONLY | O_CLOEXEC)),
      follows_(follows) {
  if (descriptor_ < 0) throw systemError(name_, "read", errno);
}

CsvStream::~CsvStream() {
  if (descriptor_ != STDIN_FILENO) ::close(descriptor_);
}

CsvLayout CsvStream::layout() {
  while (!isAtEnd_ && !hasBeginning()) {
    if (isInterrupted() && buffer_.find_first_of("\r\n") != std::string::npos) break;
    stopIfInterrupted();
    fill(kHeaderPatience);
  }
  const std::size_t mark = byteOrderMarkSize(buffer_);
  CsvLayout layout = findLayout(name_, std::string_view(buffer_).substr(mark), isAtEnd_, options_);
  dialect_ = layout.dialect;
  begin_ = mark + layout.bodyPosition;
  line_ = layout.bodyLine;
  return layout;
}

bool CsvStream::hasBeginning() {
  const std::size_t mark = byteOrderMarkSize(buffer_);
  return isEnoughForLayout(std::string_view(buffer_).substr(mark), options_);
}

CsvStream::Next CsvStream::next(CsvRow& row, std::chrono::milliseconds patience) {
  const auto start = std::chrono::steady_clock::now();
  for (bool isFirst = true; !takeRow(row); isFirst = false) {
    if (isAtEnd_) return Next::end;
    if (isInterrupted()) patience = std::chrono::milliseconds(0);
    // A row that does not end may keep bytes coming, but the caller has other things to do.
    const bool isLate = std::chrono::steady_clock::now() - start > patience;
    if ((isLate && !isFirst) || !fill(patience)) return Next::pause;
  }
  return Next::row;
}

bool CsvStream::takeRow(CsvRow& row) {
  const std::string_view text = std::string_view(buffer_).substr(begin_);
  CsvRows rows(text, dialect_, line_);
  const bool isRow = rows.next(row);
  if (isRow && !row.isEnded && !isAtEnd_) return false;
  // The "\n" of a line end "\r\n" may be on its way.
  if (!isRow && !isAtEnd_ && !text.empty() && text.back() == '\r') return false;
  begin_ += rows.position();
  line_ = rows.line();
  return isRow;
}

std::optional<std::int64_t> CsvStream::unfinishedLine() const {
  CsvRows rows(std::string_view(buffer_).substr(begin_), dialect_, line_);
  std::optional<std::int64_t> line;
  for (CsvRow row; rows.next(row);) line = row.line;
  return line;
}

// Returns whether there is more to look at.
bool CsvStream::fill(std::chrono::milliseconds patience) {
  buffer_.erase(0, begin_);
  begin_ = 0;
  if (buffer_.size() > kMaxRowBytes) {
    throw std::runtime_error(describeLine(name_, unfinishedLine().value_or(line_)) +
                             ": a row is longer than 16 MiB, the most that kyr record takes (a "
                             "quotation mark may not be "
                             "closed; kyr import takes longer rows)");
  }
  if (!waitForMore(patience)) return false;
  piece_.resize(kPieceBytes);
  const ssize_t got = ::read(descriptor_, piece_.data(), piece_.size());
  const int error = errno;
  if (got < 0 && error != EINTR && error != EAGAIN) throw systemError(name_, "read", error);
  if (got > 0) {
    taken_ += static_cast<std::uint64_t>(got);
    decoder_.decode({piece_.data(), static_cast<std::size_t>(got)}, buffer_);
  }
  if (got != 0) return got > 0;
  if (follows_) {
    struct stat status {};
    if (::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<std::uint64_t>(status.st_size) < taken_) {
      throw std::runtime_error(name_ + " became shorter while kyr followed it");
    }
    std::this_thread::sleep_for(std::min(patience, kFollowInterval));
    return false;
  }
  decoder_.finish(buffer_);
  isAtEnd_ = true;
  return true;
}

bool CsvStream::waitForMore(std::chrono::milliseconds patience) const {
  pollfd waited{descriptor_, POLLIN, 0};
  return ::poll(&waited, 1, static_cast<int>(patience.count())) > 0;
}

}  // namespace kyr::tool
