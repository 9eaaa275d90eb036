#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvLayout.h"
#include "csv/CsvOptions.h"
#include "csv/CsvTokenizer.h"
#include "csv/InputDecoder.h"

namespace kyr::tool {

/// Reads the rows of a CSV text as they come, from a pipe or from a file that may be growing.
///
/// Errors are std::runtime_error that name the source.
class CsvStream {
 public:
  /// \param source  name of a file, or "-" for standard input
  /// \param follows  whether to wait for more where the file ends
  CsvStream(const std::string& source, const CsvOptions& options, bool follows);
  ~CsvStream();
  CsvStream(const CsvStream&) = delete;
  CsvStream& operator=(const CsvStream&) = delete;

  /// What messages call the source.
  const std::string& name() const { return name_; }
  const CsvDialect& dialect() const { return dialect_; }

  /// What the first rows say. Waits for the names and some values. To be called first, and once.
  /// \throws Interrupted if not even the names have come
  CsvLayout layout();

  enum class Next {
    row,
    pause,  ///< there is none yet
    end,
  };

  /// Steps to the next row. `CsvRow::isEnded` is false for a last row without a line end, which may
  /// have been cut off.
  /// \param row  valid until the next call
  /// \param patience  how long to wait for a row; a signal ends the wait, too
  Next next(CsvRow& row, std::chrono::milliseconds patience);

  /// The line that was reached.
  std::int64_t line() const { return line_; }

  /// The line at which a row begins of which only a part has come so far; none without such a part.
  std::optional<std::int64_t> unfinishedLine() const;

 private:
  bool takeRow(CsvRow& row);
  bool hasBeginning();
  bool fill(std::chrono::milliseconds patience);
  bool waitForMore(std::chrono::milliseconds patience) const;

  std::string name_;
  CsvOptions options_;
  CsvDialect dialect_;
  InputDecoder decoder_;
  int descriptor_;
  bool follows_;
  std::string piece_;
  std::string buffer_;
  std::size_t begin_ = 0;    // of the text behind the last row
  std::int64_t line_ = 1;    // line of begin_
  std::uint64_t taken_ = 0;  // bytes read so far
  bool isAtEnd_ = false;
};

}  // namespace kyr::tool
