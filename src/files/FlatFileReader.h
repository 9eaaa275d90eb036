#pragma once

#include <parquet/metadata.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "files/PhysicalTypes.h"
#include "kyr/parquet/ColumnNames.h"
#include "platform/ByteSource.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// Where the values of one numeric column lie in a file whose pages are plain and hold no nulls.
/// They are read from there straight into the caller's memory.
///
/// Other files, damaged ones included, are not read here. The caller then reads the file with
/// Arrow, which says what is wrong with it.
class FlatColumn {
 public:
  /// \param name  of the column, which is the only one of the file
  /// \param type  of the column; any if null
  /// \return empty if the metadata tell that it is no such column
  static std::unique_ptr<FlatColumn> make(const ::parquet::FileMetaData& metadata,
                                          std::uint64_t fileSize, const std::string& name,
                                          const ::arrow::DataType* type);

  /// Like make() for columns of any type, but only some of the row groups need to be plain.
  static std::unique_ptr<FlatColumn> makeWherePlain(const ::parquet::FileMetaData& metadata,
                                                    std::uint64_t fileSize,
                                                    const std::string& name);

  std::uint64_t rows() const { return groups_.empty() ? 0 : groups_.back().end; }
  std::size_t width() const { return width_; }
  /// The schema of the file, as Arrow has it.
  const std::shared_ptr<::arrow::Schema>& schema() const { return schema_; }
  /// First row of a row group, which may be the one behind the last.
  std::uint64_t rowStart(std::size_t group) const {
    return group == 0 ? 0 : groups_[group - 1].end;
  }

  /// Reads rows [first, first + count), which there must be, to \p out.
  /// \return whether the pages were as they should be; \p out is overwritten in any case
  /// \throws std::system_error naming the file if it cannot be read
  bool read(const ByteSource& file, std::uint64_t first, std::uint64_t count, char* out);

  /// The same for rows of one row group, counted from its first one.
  bool readGroup(const ByteSource& file, std::size_t group, std::uint64_t first,
                 std::uint64_t count, char* out);

 private:
  struct Page {
    std::uint64_t end = 0;  // row behind its last one
    std::uint64_t values = 0;
  };
  // A row group that is not plain has no bytes here.
  struct Group {
    std::uint64_t end = 0;     // row behind its last one
    std::uint64_t offset = 0;  // of the first page that was not looked at yet
    std::uint64_t limit = 0;   // behind the last byte of its pages
    std::vector<Page> pages;   // looked at so far
  };

  FlatColumn(std::shared_ptr<::arrow::Schema> schema, std::size_t width, std::size_t stored,
             bool isOptional)
      : schema_(std::move(schema)), width_(width), stored_(stored), isOptional_(isOptional) {}

  static std::unique_ptr<FlatColumn> make(const ::parquet::FileMetaData& metadata,
                                          std::uint64_t fileSize, const std::string& name,
                                          const ::arrow::DataType* type, bool needsAllPlain);
  // Returns whether the row group is plain.
  bool add(const ::parquet::RowGroupMetaData& group, const ::parquet::ColumnChunkMetaData& chunk,
           std::uint64_t fileSize);
  bool findNextPage(const ByteSource& file, std::size_t group);
  bool readValues(const ByteSource& file, std::uint64_t offset, std::uint64_t count,
                  char* out) const;

  std::shared_ptr<::arrow::Schema> schema_;
  std::size_t width_;   // of a value in memory
  std::size_t stored_;  // in the file
  bool isOptional_;
  std::vector<Group> groups_;
};

/// The metadata of a Parquet file; empty if it is none.
/// \throws std::system_error naming the file if it cannot be read
std::shared_ptr<::parquet::FileMetaData> readMetadata(const ByteSource& file);

/// Replaces \p out by rows [first, first + count), which there must be. Memory that \p out has is
/// used. Memory that it does not have is allocated, cleared and filled piece by piece, while the
/// piece is in the processor's cache.
/// \param out  elements of a column's width, or bytes
/// \return as FlatColumn::read()
template <typename T>
bool readRows(FlatColumn& column, const ByteSource& file, std::uint64_t first, std::uint64_t count,
              std::vector<T>& out) {
  constexpr std::uint64_t kPiece = 32'768;
  const std::size_t perRow = column.width() / sizeof(T);
  const std::size_t size = static_cast<std::size_t>(count) * perRow;
  if (out.size() > size) out.resize(size);
  if (out.capacity() < size) {
    out.clear();
    out.reserve(size);
  }
  for (std::uint64_t done = 0; done < count;) {
    const std::uint64_t there = out.size() / perRow;
    const std::uint64_t end = there > done ? there : std::min(done + kPiece, count);
    out.resize(static_cast<std::size_t>(end) * perRow);
    auto* const to = reinterpret_cast<char*>(out.data() + static_cast<std::size_t>(done) * perRow);
    if (!column.read(file, first + done, end - done, to)) return false;
    done = end;
  }
  return true;
}

/// Replaces \p out by the values of a file with nothing but a flat column called "data".
/// \param type  of the column; any if null
/// \return whether it is such a file; \p out is overwritten in any case
/// \throws std::system_error naming the file if it cannot be read
template <typename T>
bool readFlatFile(const DiskFile& file, const ::arrow::DataType* type, std::vector<T>& out) {
  const auto metadata = readMetadata(file);
  const auto column =
      metadata ? FlatColumn::make(*metadata, file.size(), columnNames::data, type) : nullptr;
  return column && readRows(*column, file, 0, column->rows(), out);
}
template <typename T>
bool readFlatFile(const std::filesystem::path& path, const ::arrow::DataType* type,
                  std::vector<T>& out) {
  return readFlatFile(DiskFile(path, DiskFile::Mode::readOnly), type, out);
}

}  // namespace kyr::parquet
