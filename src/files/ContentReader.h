#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "files/InputFile.h"
#include "files/RowGroupCache.h"
#include "files/pack/PackFile.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// Reads rows of one content, wherever they are: in a file of their own, which may be growing, or in
/// some rows of a pack. Rows are numbered from the first one of the content.
///
/// Memory: the rows that are asked for, and row groups in the cache unless the column holds numbers.
/// Failures are those of InputFile. One thread at a time.
class ContentReader {
 public:
  ContentReader(std::shared_ptr<InputFile> file, std::shared_ptr<RowGroupCache> cache);
  /// Rows [first, first + count) of a pack, which belong to the content \p storageId.
  /// \throws std::runtime_error if the pack has no such rows
  ContentReader(std::shared_ptr<PackFile> pack, int storageId, std::uint64_t first,
                std::uint64_t count);
  ~ContentReader();
  ContentReader(const ContentReader&) = delete;
  ContentReader& operator=(const ContentReader&) = delete;

  const InputFile& file() const { return pack_ ? pack_->file() : *file_; }
  std::uint64_t rows() const { return pack_ ? count_ : file_->rows(); }
  /// Takes note of rows that a growing file got meanwhile, up to \p rows.
  void grow(std::uint64_t rows);

  /// All columns of the content.
  const std::shared_ptr<::arrow::Schema>& columns() const {
    return pack_ ? schema_.schema : file_->schema();
  }
  /// The columns "data" and "dimension".
  const SampleSchema& schema() const { return schema_; }
  /// Whether there is a column "time" beside them.
  bool hasTimes() const { return hasTimes_; }
  /// Whether each row is one number.
  bool isFlat() const { return schema_.kind == ColumnKind::flat && schema_.dimensionIndex < 0; }
  /// Bytes of an element.
  std::size_t width() const { return width_; }
  ::arrow::Compression::type codec() const;

  /// Parts of the content that are decoded together, and the first row of each; part parts() begins
  /// behind the last row.
  std::size_t parts() const;
  std::uint64_t partStart(std::size_t part) const;
  std::size_t partOfRow(std::uint64_t row) const;
  /// As InputFile::ascendingGroups(), by part.
  std::vector<std::optional<NumberRange>> ascendingParts(std::size_t first) const;

  /// Writes the numbers of rows [first, first + count), which there must be, to \p out.
  /// \param column  "data" if isFlat(), or "time" if hasTimes()
  void readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count, char* out);
  /// Rows [first, first + count) of "data" and "dimension", which there must be. They stay as they are
  /// as long as their keeper lives.
  HeldRows read(std::uint64_t first, std::uint64_t count);

  /// The rows that need some of the bytes [from, to) of the file.
  RowSpan rowsIn(std::uint64_t from, std::uint64_t to) const;

 private:
  HeldRows readGroup(std::size_t group, std::size_t from, std::size_t count);
  void requireRows(std::uint64_t first, std::uint64_t count) const;

  std::shared_ptr<InputFile> file_;  // null for rows of a pack
  std::shared_ptr<RowGroupCache> cache_;
  std::shared_ptr<PackFile> pack_;  // null for a file
  int storageId_ = 0;
  std::uint64_t first_ = 0;  // row of the pack
  std::uint64_t count_ = 0;
  SampleSchema schema_;
  std::size_t width_ = 1;
  bool hasTimes_ = false;
};

}  // namespace kyr::parquet
