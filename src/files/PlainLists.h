#pragma once

#include <parquet/metadata.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/ByteSource.h"

namespace kyr::parquet {

/// Gives memory for the next items of lists.
/// \param bytes  how many
/// \param rest  as many more will be asked for; 0 if that is not known
using ItemMemory = std::function<char*(std::size_t bytes, std::size_t rest)>;

/// Where the lists of numbers of the first column of a file lie, in row groups whose pages are
/// plain and in which no list is null or empty and no number is null. Numbers are read from there
/// straight into the caller's memory; levels are looked at, but not decoded one by one.
///
/// Other row groups, damaged ones included, are not read here. The caller then decodes them with
/// Parquet's readers, which say what is wrong with them.
class PlainLists {
 public:
  /// \param metadata  of all row groups that are read here
  /// \return empty if there is no such column
  static std::unique_ptr<PlainLists> make(const ::parquet::FileMetaData& metadata,
                                          std::uint64_t fileSize);

  /// Appends all rows of a row group.
  /// \param width  bytes of a number in memory
  /// \param ends  receives where the items of each row end, counted on from the last end
  /// \return whether the pages are as they should be; otherwise nothing was appended
  /// \throws std::system_error naming the file if it cannot be read
  /// \throws ::parquet::ParquetException if the file has become shorter
  bool readGroup(const ByteSource& file, std::size_t group, std::size_t width,
                 const ItemMemory& items, std::vector<std::uint64_t>& ends) const;

 private:
  struct Page {
    std::uint64_t values = 0;
    std::uint64_t count = 0;
  };
  // A row group that is not plain has no bytes here.
  struct Group {
    std::uint64_t rows = 0;
    std::uint64_t values = 0;
    std::uint64_t offset = 0;
    std::uint64_t limit = 0;  // behind the last byte of its pages
    bool hasCodec = false;
  };

  explicit PlainLists(std::size_t stored) : stored_(stored) {}

  void add(const ::parquet::RowGroupMetaData& group, std::uint64_t fileSize);
  // None if a page is not as it should be. Adds to the ends all the same.
  std::vector<Page> findPages(const ByteSource& file, const Group& in,
                              std::vector<std::uint64_t>& ends) const;

  std::size_t stored_;  // bytes of a number in the file
  std::vector<Group> groups_;
};

}  // namespace kyr::parquet
