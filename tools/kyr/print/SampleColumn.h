#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kyr/recording/RecordingReader.h"
#include "print/RowFormat.h"
#include "print/SampleCursor.h"

namespace kyr::tool {

/// The samples of one signal, as CSV cells.
///
/// Numbers have the shortest form that reads back exactly. A matrix is a quoted cell with ";"
/// between rows and blanks between elements. A vector is one such row. Further dimensions continue
/// the columns. A sample without elements is an empty quoted cell. Blobs are base64, but for scalar
/// byte strings, which are texts.
class SampleColumn {
 public:
  /// \param reader  must outlive the object, and not be refreshed meanwhile
  /// \param endRow  row behind the last that will be asked for
  /// \param blockRows  numbers that are read at once at most
  SampleColumn(const recording::RecordingReader& reader, const recording::SignalInfo& signal,
               std::uint64_t endRow, std::size_t blockRows);

  /// Appends the cell of a row. Rows that are asked for in ascending order are read once.
  void append(fmt::memory_buffer& out, std::uint64_t row) { append(out, row, /*isQuoted=*/true); }
  /// Appends it without quotation marks.
  void appendBare(fmt::memory_buffer& out, std::uint64_t row) {
    append(out, row, /*isQuoted=*/false);
  }
  /// Makes the cell of a number from its bytes. Null if the samples are no single numbers.
  using ElementText = void (*)(fmt::memory_buffer& out, const char* element);
  ElementText numberText() const { return isNumber_ ? elementText_ : nullptr; }
  /// The bytes of a single number, which are valid until the next call.
  const char* number(std::uint64_t row) {
    const recording::SampleBlock& block = samples_.blockOf(row);
    return static_cast<const char*>(block.elements) + (row - block.firstRow) * width();
  }
  /// Bytes of an element.
  std::size_t width() const { return samples_.width(); }

  /// What the cells of a signal hold.
  static CellType typeOf(const recording::SignalInfo& signal);

 private:
  void append(fmt::memory_buffer& out, std::uint64_t row, bool isQuoted);

  void appendMatrix(fmt::memory_buffer& out, const recording::SampleBlock& block,
                    std::size_t sample, bool isQuoted) const;
  std::size_t rowsOf(const recording::SampleBlock& block, std::size_t sample,
                     std::size_t elements) const;

  SampleCursor samples_;
  ElementText elementText_;  // null for blobs
  bool isText_;              // whether each sample is a text
  bool isNumber_;            // whether each sample is one number
  std::vector<std::uint64_t> fixedShape_;
};

}  // namespace kyr::tool
