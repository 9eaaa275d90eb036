#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "csv/CsvRecords.h"

namespace kyr::tool {

/// The rows of a CSV text as they come: of a pipe, or of a file that may be growing.
///
/// Errors are std::runtime_error that name the source.
class CsvStream {
 public:
  /// \param source  name of a file, or "-" for standard input
  /// \param follows  whether more is waited for where the file ends
  CsvStream(const std::string& source, bool follows);
  ~CsvStream();
  CsvStream(const CsvStream&) = delete;
  CsvStream& operator=(const CsvStream&) = delete;

  /// The source as messages name it.
  const std::string& name() const { return name_; }

  enum class Next {
    row,
    pause,  ///< there is none yet
    end,
  };

  /// \param record  good until the next call
  /// \param patience  how long to wait for a row; a signal ends the wait, too
  Next next(CsvRecord& record, std::chrono::milliseconds patience);

  /// Whether the row that came last was the end of the text, without a line end behind it.
  bool isCutOff() const { return isCutOff_; }

  /// The header row's cells, without blanks around them. To be called first, and once; waits.
  /// \throws Interrupted
  std::vector<std::string> header();

 private:
  bool takeRow(CsvRecord& record);
  bool fill(std::chrono::milliseconds patience);
  bool waitForMore(std::chrono::milliseconds patience) const;

  std::string name_;
  int descriptor_;
  bool follows_;
  std::string buffer_;
  std::size_t begin_ = 0;    // of what is not taken yet
  std::int64_t line_ = 1;    // where that is
  std::uint64_t taken_ = 0;  // bytes of the file
  bool isAtEnd_ = false;
  bool isCutOff_ = false;
};

}  // namespace kyr::tool
