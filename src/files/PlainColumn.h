#pragma once

#include <parquet/metadata.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/ByteSource.h"

namespace kyr::parquet {

/// Where the numbers of the first column of a file lie, in row groups whose pages are plain and
/// hold no nulls. They are read from there straight into the caller's memory.
///
/// Other row groups, damaged ones included, are not read here. The caller then decodes them with
/// Parquet's readers, which say what is wrong with them.
class PlainColumn {
 public:
  /// \param metadata  of all row groups that are read here
  /// \return empty if there is no such column
  static std::unique_ptr<PlainColumn> make(const ::parquet::FileMetaData& metadata,
                                           std::uint64_t fileSize);

  /// Bytes of a number in memory.
  std::size_t width() const { return width_; }

  /// Reads rows of a row group to \p out.
  /// \param first  counted from the first row of the row group
  /// \return whether the pages are as they should be; \p out is overwritten in any case
  /// \throws std::system_error naming the file if it cannot be read
  bool readGroup(const ByteSource& file, std::size_t group, std::uint64_t first,
                 std::uint64_t count, char* out);

 private:
  struct Page {
    std::uint64_t end = 0;  // row behind its last one
    std::uint64_t values = 0;
  };
  // A row group that is not plain has no bytes here.
  struct Group {
    std::uint64_t rows = 0;
    std::uint64_t offset = 0;  // of the first page that was not looked at yet
    std::uint64_t limit = 0;   // behind the last byte of its pages, or where one is not plain
    bool hasCodec = false;
    std::vector<Page> pages;  // looked at so far
  };

  PlainColumn(std::size_t width, std::size_t stored, bool isOptional)
      : width_(width), stored_(stored), isOptional_(isOptional) {}

  void add(const ::parquet::RowGroupMetaData& group, std::uint64_t fileSize);
  bool findNextPage(const ByteSource& file, Group& group) const;

  std::size_t width_;   // of a value in memory
  std::size_t stored_;  // in the file
  bool isOptional_;
  std::vector<Group> groups_;
};

}  // namespace kyr::parquet
