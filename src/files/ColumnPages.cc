#include "files/ColumnPages.h"

#include <arrow/api.h>
#include <parquet/exception.h>

#include <algorithm>

#include "files/CompactProtocol.h"
#include "files/PhysicalTypes.h"
#include "files/ValueDictionary.h"

namespace kyr::parquet {

namespace {

using ::arrow::ListArray;

// The definition levels of a list of numbers.
enum ListLevel : std::uint32_t { kNullList, kEmptyList, kNullItem, kItem };
constexpr unsigned kListLevelBits = 2;

void addRun(ColumnPage& page, const ::arrow::Array& array, std::int64_t from, std::int64_t count) {
  if (!page.runs.empty() && page.runs.back().array == &array &&
      page.runs.back().from + page.runs.back().count == from) {
    page.runs.back().count += count;
  } else {
    page.runs.push_back({&array, from, count});
  }
  std::int64_t nulls = 0;
  if (array.null_count() > 0) {
    for (std::int64_t i = from; i < from + count; ++i) nulls += array.IsNull(i) ? 1 : 0;
  }
  page.values += count - nulls;
  page.missing += nulls;
}

// The same level for all entries.
void putLevel(std::string& levels, std::int64_t count, std::uint32_t level) {
  putVarint(levels, static_cast<std::uint64_t>(count) << 1U);
  levels.push_back(static_cast<char>(level));
}

// The definition levels of a page of numbers: 1 for a value, 0 for a null.
std::string levelsOfNumbers(const ColumnPage& page) {
  std::string levels;
  if (page.missing == 0) {
    putLevel(levels, page.values, 1);
    return levels;
  }
  std::int64_t count = 0;
  bool isThere = false;
  for (const auto& [array, from, rows] : page.runs) {
    for (std::int64_t i = from; i < from + rows; ++i) {
      if (count > 0 && array->IsValid(i) != isThere) {
        putLevel(levels, count, isThere ? 1 : 0);
        count = 0;
      }
      isThere = array->IsValid(i);
      ++count;
    }
  }
  putLevel(levels, count, isThere ? 1 : 0);
  return levels;
}

// Pages of a column of lists.
class ListPages {
 public:
  ListPages(const PageSize& size, std::int64_t width,
            const std::function<void(const ColumnPage&)>& visit)
      : size_(size), width_(width), visit_(visit) {}

  void add(const ListArray& lists) {
    const std::int32_t* const offsets = lists.raw_value_offsets();
    for (std::int64_t at = 0; at < lists.length();) {
      const std::int64_t limit = std::min(at + size_.batchRows, lists.length());
      const auto wanted = std::int64_t{offsets[at]} + size_.batchRows;
      const std::int64_t end = std::min(
          limit, std::lower_bound(offsets + at + 1, offsets + limit + 1, wanted) - offsets);
      addRows(lists, at, end);
      at = end;
      if (page_.values * width_ >= size_.bytes) finish();
    }
  }

  void finish() {
    if (page_.rows == 0) return;
    std::string definitions;
    if (isComplete_) {
      page_.levels = rowStarts();
      definitions = levelsOfFullLists(static_cast<std::uint64_t>(page_.values));
    } else {
      std::vector<std::uint32_t> repetitionLevels;
      std::vector<std::uint32_t> definitionLevels;
      for (const Rows& rows : rows_) addLevels(rows, repetitionLevels, definitionLevels);
      page_.levels = packHybrid(repetitionLevels.data(), repetitionLevels.size(), 1);
      definitions = packHybrid(definitionLevels.data(), definitionLevels.size(), kListLevelBits);
    }
    page_.repetitionBytes = page_.levels.size();
    page_.levels += definitions;
    visit_(page_);
    page_ = {};
    rows_.clear();
    isComplete_ = true;
  }

 private:
  struct Rows {
    const ListArray* lists;
    std::int64_t from;
    std::int64_t end;
  };

  void addRows(const ListArray& lists, std::int64_t from, std::int64_t end) {
    const std::int32_t* const offsets = lists.raw_value_offsets();
    const ::arrow::Array& items = *lists.values();
    bool isComplete = lists.null_count() == 0 && items.null_count() == 0;
    for (std::int64_t row = from; row < end; ++row) isComplete &= offsets[row] < offsets[row + 1];
    rows_.push_back({&lists, from, end});
    page_.rows += end - from;
    isComplete_ &= isComplete;
    if (isComplete) return addRun(page_, items, offsets[from], offsets[end] - offsets[from]);
    for (std::int64_t row = from; row < end; ++row) {
      if (offsets[row] > offsets[row + 1]) {
        throw ::parquet::ParquetException("the offsets of a column of lists descend");
      }
      if (lists.IsNull(row) || offsets[row] == offsets[row + 1]) {
        ++page_.missing;
      } else {
        addRun(page_, items, offsets[row], offsets[row + 1] - offsets[row]);
      }
    }
  }

  // The repetition levels of a page in which nothing is missing, bit by bit: 0 where a row starts.
  std::string rowStarts() const {
    std::string levels;
    const auto bytes = static_cast<std::size_t>(page_.values + 7) / 8;
    putVarint(levels, bytes << 1U | 1U);
    const std::size_t begin = levels.size();
    levels.append(bytes, '\xff');
    char* const bits = levels.data() + begin;
    std::uint64_t start = 0;
    for (const auto& [lists, from, end] : rows_) {
      const std::int32_t* const offsets = lists->raw_value_offsets();
      for (std::int64_t row = from; row < end; ++row) {
        bits[start / 8] = static_cast<char>(bits[start / 8] & ~(1 << start % 8));
        start += static_cast<std::uint64_t>(offsets[row + 1] - offsets[row]);
      }
    }
    return levels;
  }

  static void addLevels(const Rows& rows, std::vector<std::uint32_t>& repetitions,
                        std::vector<std::uint32_t>& definitions) {
    const ListArray& lists = *rows.lists;
    const ::arrow::Array& items = *lists.values();
    for (std::int64_t row = rows.from; row < rows.end; ++row) {
      const std::int64_t first = lists.value_offset(row);
      const std::int64_t end = lists.IsNull(row) ? first : lists.value_offset(row + 1);
      repetitions.push_back(0);
      if (first == end) definitions.push_back(lists.IsNull(row) ? kNullList : kEmptyList);
      for (std::int64_t i = first; i < end; ++i) {
        if (i > first) repetitions.push_back(1);
        definitions.push_back(items.IsNull(i) ? kNullItem : kItem);
      }
    }
  }

  const PageSize& size_;
  std::int64_t width_;
  const std::function<void(const ColumnPage&)>& visit_;
  ColumnPage page_;
  std::vector<Rows> rows_;  // of the page
  bool isComplete_ = true;  // whether no list of the page is null or empty, and no item is null
};

}  // namespace

bool isListOfNumbers(const ::parquet::ColumnDescriptor& column) {
  return column.max_repetition_level() == 1 && column.max_definition_level() == kItem &&
         physicalWidth(column.physical_type()) > 0;
}

std::string levelsOfFullLists(std::uint64_t count) {
  std::string levels;
  putLevel(levels, static_cast<std::int64_t>(count), kItem);
  return levels;
}

void forEachPage(const ::arrow::ChunkedArray& values, const ::parquet::ColumnDescriptor& column,
                 const PageSize& size, std::int64_t width,
                 const std::function<void(const ColumnPage& page)>& visit) {
  if (column.max_repetition_level() > 0) {
    ListPages pages(size, width, visit);
    for (const auto& array : values.chunks()) pages.add(static_cast<const ListArray&>(*array));
    return pages.finish();
  }
  ColumnPage page;
  const auto finish = [&] {
    page.rows = page.entries();
    if (column.max_definition_level() > 0) page.levels = levelsOfNumbers(page);
    visit(page);
    page = {};
  };
  for (const auto& array : values.chunks()) {
    for (std::int64_t at = 0; at < array->length(); at += size.batchRows) {
      addRun(page, *array, at, std::min(size.batchRows, array->length() - at));
      if (page.values * width >= size.bytes) finish();
    }
  }
  if (page.entries() > 0) finish();
}

}  // namespace kyr::parquet
