#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kyr::tool {

/// One row of a CSV text as it stands in the file.
struct CsvRecord {
  std::int64_t line = 0;    ///< line of the file at which it begins, from 1
  std::string_view text;    ///< without the line end
  std::int64_t cells = 1;   ///< number of cells
  bool isUnclosed = false;  ///< whether the text ends inside quotation marks
};

/// Walks over the rows of a CSV text as Arrow's reader splits them, which does not tell where in
/// the file a row was: empty lines are no rows, quoted cells may hold line ends.
class CsvRecordScanner {
 public:
  /// \param line  of the file, at which \p text begins
  CsvRecordScanner(std::string_view text, std::int64_t line) : text_(text), line_(line) {}

  /// Step to the next row; false at the end.
  bool next(CsvRecord& record);

  /// Where the row after the current one begins.
  std::size_t position() const { return position_; }
  std::int64_t line() const { return line_; }

 private:
  enum class State { cellStart, plain, quoted, afterQuote };

  bool atLineEnd() const;
  void skipLineEnd();
  void skipContent(State state);
  State skipCharacter(State state, CsvRecord& record);

  std::string_view text_;
  std::int64_t line_;
  std::size_t position_ = 0;
};

/// The cells of a row, without their quotation marks, as Arrow's reader takes them apart.
/// \param cells  replaced
void splitCells(std::string_view row, std::vector<std::string>& cells);

}  // namespace kyr::tool
