#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "files/InputFile.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// A decoded row group.
struct DecodedGroup {
  RowStore rows;
  std::vector<std::int32_t> ids;  ///< in packs: the storage id that each row belongs to
};

/// The row groups that were decoded last, from all files that share the object.
class RowGroupCache {
 public:
  std::shared_ptr<const DecodedGroup> find(const InputFile& file, std::size_t group);
  void put(const InputFile& file, std::size_t group, std::shared_ptr<DecodedGroup> rows);
  void forget(const InputFile& file);
  /// A row group of \p file that is no longer needed, whose memory can be used again; may be null.
  std::shared_ptr<DecodedGroup> takeSpare(const InputFile& file);

 private:
  static constexpr std::size_t kGroups = 4;

  struct Entry {
    const InputFile* file;
    std::size_t group;
    std::shared_ptr<DecodedGroup> rows;
  };
  std::list<Entry> entries_;  // the last used first
};

/// Rows [first, first + count) of a file, from its decoded row groups. Rows of more than one row
/// group are copied together.
/// \param rowsIn  gives rows [from, from + count) of a row group: HeldRows(group, from, count)
template <typename RowsIn>
HeldRows gatherRows(const InputFile& file, const SampleSchema& schema, std::size_t width,
                    std::uint64_t first, std::uint64_t count, RowsIn&& rowsIn) {
  std::shared_ptr<RowStore> joined;
  for (std::uint64_t at = first; at < first + count;) {
    const std::size_t group = file.groupOfRow(at);
    const std::uint64_t end = std::min(first + count, file.rowStart(group + 1));
    HeldRows rows = rowsIn(group, static_cast<std::size_t>(at - file.rowStart(group)),
                           static_cast<std::size_t>(end - at));
    if (rows.rows.rows == count) return rows;
    if (!joined) joined = std::make_shared<RowStore>(schema, width);
    joined->append(rows.rows);
    at = end;
  }
  if (!joined) joined = std::make_shared<RowStore>(schema, width);
  return {joined->slice(), joined};
}

}  // namespace kyr::parquet
