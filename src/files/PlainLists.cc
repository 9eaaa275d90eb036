#include "files/PlainLists.h"

#include <parquet/exception.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>
#include <string_view>

#include "files/ColumnPages.h"
#include "files/CompactProtocol.h"
#include "files/PhysicalTypes.h"
#include "files/PlainPages.h"
#include "platform/FreshMemory.h"

namespace kyr::parquet {

namespace {

// Finds the rows of a page by its repetition levels, which are one bit each: 0 where a row starts.
// They come in runs of equal bits and in runs of bytes with eight bits each (apache/parquet-format,
// Encodings.md, RLE).
class RowFinder {
 public:
  RowFinder(std::string_view levels, std::uint64_t count, std::uint64_t firstItem,
            std::vector<std::uint64_t>& ends)
      : levels_(levels), count_(count), firstItem_(firstItem), ends_(ends) {}

  /// Adds the ends of all rows. Returns whether the levels make sense.
  bool addEnds() {
    while (at_ < count_) {
      std::uint64_t header = 0;
      if (!takeVarint(header)) return false;
      const std::uint64_t most = count_ - at_;
      if ((header & 1U) != 0) {
        const std::uint64_t bytes = header >> 1U;
        if (bytes == 0 || bytes > levels_.size()) return false;
        addBits(levels_.substr(0, static_cast<std::size_t>(bytes)), std::min(most, 8 * bytes));
        levels_.remove_prefix(static_cast<std::size_t>(bytes));
      } else {
        const std::uint64_t run = header >> 1U;
        if (run == 0 || run > most || levels_.empty()) return false;
        if (levels_[0] == 0) {
          for (std::uint64_t i = 0; i < run; ++i) addStart(at_ + i);
        }
        levels_.remove_prefix(1);
        at_ += run;
      }
    }
    ends_.push_back(firstItem_ + count_);
    return startsWithRow_;
  }

 private:
  bool takeVarint(std::uint64_t& value) {
    constexpr unsigned kMostBits = 35;
    for (unsigned shift = 0; shift < kMostBits && !levels_.empty(); shift += 7) {
      const auto byte = static_cast<unsigned char>(levels_[0]);
      levels_.remove_prefix(1);
      value |= std::uint64_t{byte & 0x7fU} << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }

  void addBits(std::string_view bytes, std::uint64_t count) {
    for (std::uint64_t from = 0; from < count; from += 64) {
      std::uint64_t starts = ~std::uint64_t{0};
      std::memcpy(&starts, bytes.data() + from / 8,
                  std::min<std::size_t>(sizeof(starts), bytes.size() - from / 8));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
      starts = __builtin_bswap64(starts);
#endif
      starts = ~starts;
      if (count - from < 64) starts &= (std::uint64_t{1} << (count - from)) - 1;
      for (; starts != 0; starts &= starts - 1) {
        addStart(at_ + from + static_cast<std::uint64_t>(__builtin_ctzll(starts)));
      }
    }
    at_ += count;
  }

  void addStart(std::uint64_t at) {
    if (at == 0) {
      startsWithRow_ = true;
    } else {
      ends_.push_back(firstItem_ + at);
    }
  }

  std::string_view levels_;  // that were not looked at yet
  std::uint64_t count_;
  std::uint64_t firstItem_;
  std::vector<std::uint64_t>& ends_;
  std::uint64_t at_ = 0;
  bool startsWithRow_ = false;
};

}  // namespace

std::unique_ptr<PlainLists> PlainLists::make(const ::parquet::FileMetaData& metadata,
                                             std::uint64_t fileSize) {
  if (metadata.num_columns() < 1 || metadata.is_encryption_algorithm_set()) return nullptr;
  const ::parquet::ColumnDescriptor& column = *metadata.schema()->Column(0);
  if (!isListOfNumbers(column)) return nullptr;
  std::unique_ptr<PlainLists> result(new PlainLists(physicalWidth(column.physical_type())));
  for (int i = 0; i < metadata.num_row_groups(); ++i) result->add(*metadata.RowGroup(i), fileSize);
  return result;
}

void PlainLists::add(const ::parquet::RowGroupMetaData& group, std::uint64_t fileSize) {
  const auto chunk = group.ColumnChunk(0);
  const auto rows = static_cast<std::uint64_t>(group.num_rows());
  const auto values = static_cast<std::uint64_t>(chunk->num_values());
  const auto plain = plainChunk(*chunk, stored_, fileSize);
  groups_.push_back(plain && rows <= values ? Group{rows, values, plain->offset,
                                                    plain->offset + plain->bytes, plain->hasCodec}
                                            : Group());
}

bool PlainLists::readGroup(const ByteSource& file, std::size_t group, std::size_t width,
                           const ItemMemory& items, std::vector<std::uint64_t>& ends) const {
  constexpr std::uint64_t kPiece = 32'768;  // values, which stay in the processor's cache
  const bool fits = width == stored_ || (stored_ == sizeof(std::int32_t) && width < stored_);
  const std::size_t had = ends.size();
  const auto pages = fits ? findPages(file, groups_[group], ends) : std::vector<Page>();
  if (pages.empty()) {
    ends.resize(had);
    return false;
  }
  std::uint64_t rest =
      std::accumulate(pages.begin(), pages.end(), std::uint64_t{0},
                      [](std::uint64_t sum, const Page& page) { return sum + page.count; });
  for (const Page& page : pages) {
    for (std::uint64_t at = 0; at < page.count; at += kPiece) {
      const std::uint64_t count = std::min(kPiece, page.count - at);
      rest -= count;
      char* const to =
          items(static_cast<std::size_t>(count) * width, static_cast<std::size_t>(rest) * width);
      if (!readPlainNumbers(file, page.values + at * stored_, count, width, stored_, to)) {
        throw ::parquet::ParquetException("a page ends early");
      }
    }
  }
  return true;
}

std::vector<PlainLists::Page> PlainLists::findPages(const ByteSource& file, const Group& in,
                                                    std::vector<std::uint64_t>& ends) const {
  std::vector<Page> pages;
  const std::size_t wanted = ends.size() + static_cast<std::size_t>(in.rows);
  // A file may claim any number of rows. Memory for more than these is allocated as they are found.
  constexpr std::size_t kTrusted = std::size_t{1} << 23U;
  const std::size_t trusted = std::min(static_cast<std::size_t>(in.rows), kTrusted);
  platform::reserveMore(ends, ends.size() + trusted);
  platform::provide(ends.data() + ends.size(), trusted * sizeof(ends[0]));
  std::uint64_t values = 0;
  std::string start;
  for (std::uint64_t at = in.offset; at < in.limit && ends.size() < wanted;) {
    start.resize(std::min<std::uint64_t>(kPageStartBytes, in.limit - at));
    start.resize(file.readAt(at, start.data(), start.size()));
    const auto page = readPlainPageHeader(start, in.hasCodec);
    if (!page || page->nulls != 0 || page->entries == 0) return {};
    at += page->headerBytes;
    const auto count = static_cast<std::uint64_t>(page->entries);
    const auto repetitions = static_cast<std::uint64_t>(page->repetitionBytes);
    const auto definitions = static_cast<std::uint64_t>(page->definitionBytes);
    const auto bytes = static_cast<std::uint64_t>(page->pageBytes);
    if (bytes > in.limit - at || repetitions > bytes || definitions > bytes - repetitions ||
        count > bytes / stored_ || bytes - repetitions - definitions != count * stored_) {
      return {};
    }
    std::string levels(static_cast<std::size_t>(repetitions + definitions), '\0');
    if (file.readAt(at, levels.data(), levels.size()) != levels.size()) return {};
    const std::size_t before = ends.size();
    if (levels.substr(static_cast<std::size_t>(repetitions)) != levelsOfFullLists(count)) return {};
    levels.resize(static_cast<std::size_t>(repetitions));
    if (!RowFinder(levels, count, ends.empty() ? 0 : ends.back(), ends).addEnds()) return {};
    if (ends.size() - before != static_cast<std::uint64_t>(page->rows)) return {};
    pages.push_back({at + repetitions + definitions, count});
    values += count;
    at += bytes;
  }
  return ends.size() == wanted && values == in.values ? pages : std::vector<Page>();
}

}  // namespace kyr::parquet
