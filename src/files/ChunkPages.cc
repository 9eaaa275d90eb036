#include "files/ChunkPages.h"

#include <arrow/util/compression.h>
#include <parquet/exception.h>

#include <initializer_list>
#include <numeric>
#include <utility>

#include "files/CompactProtocol.h"

namespace kyr::parquet {

namespace {

using ::parquet::Encoding;

// A compressed page must save at least this part of its bytes to be worth inflating.
constexpr std::int64_t kLeastSaving = 20;

// Packed differences rarely hold anything that a codec could find: a part of a page tells.
constexpr std::int64_t kSampledPart = 8;
constexpr std::int64_t kLeastSample = 4096;

bool isSaving(std::size_t stored, std::int64_t size) {
  return static_cast<std::int64_t>(stored) < size - size / kLeastSaving;
}

// Serializes the fields of a page header in the order of their ids.
class Header {
 public:
  explicit Header(std::initializer_list<std::int64_t> numbers) {
    bytes_.reserve(64);  // more than any header takes
    add(numbers);
  }

  void add(std::initializer_list<std::int64_t> numbers) {
    for (const std::int64_t number : numbers) {
      next(CompactReader::i32);
      putInteger(bytes_, number);
    }
  }
  void next(CompactReader::Type type, int step = 1) {
    bytes_.push_back(static_cast<char>((step << 4) | type));
  }
  void endStructures(std::size_t count) { bytes_.append(count, CompactReader::stop); }

  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

std::string dictionaryHeader(std::int64_t uncompressed, std::int64_t stored, std::size_t count) {
  constexpr int kDictionaryPage = 2;
  Header header{kDictionaryPage, uncompressed, stored};
  header.next(CompactReader::structure, 4);
  header.add({static_cast<std::int64_t>(count), Encoding::PLAIN});
  header.next(CompactReader::no);  // the values are not sorted
  header.endStructures(2);
  return header.bytes();
}

std::string dataHeader(const ColumnPage& page, Encoding::type encoding, std::int64_t uncompressed,
                       std::int64_t stored, bool isCompressed) {
  constexpr int kDataPageV2 = 3;
  const auto levels = static_cast<std::int64_t>(page.levels.size());
  Header header{kDataPageV2, levels + uncompressed, levels + stored};
  header.next(CompactReader::structure, 5);
  const auto repetitions = static_cast<std::int64_t>(page.repetitionBytes);
  header.add(
      {page.entries(), page.missing, page.rows, encoding, levels - repetitions, repetitions});
  header.next(isCompressed ? CompactReader::yes : CompactReader::no);
  header.next(CompactReader::structure);  // statistics, which are empty
  header.endStructures(3);
  return header.bytes();
}

}  // namespace

ChunkPages::ChunkPages(::arrow::io::OutputStream& sink,
                       ::parquet::ColumnChunkMetaDataBuilder& metadata,
                       ::arrow::Compression::type codec)
    : sink_(sink), metadata_(metadata), codec_(::parquet::GetCodec(codec)) {}

ChunkPages::~ChunkPages() = default;

void ChunkPages::addDictionary(std::string_view values, std::size_t count) {
  const auto size = static_cast<std::int64_t>(values.size());
  const std::string_view stored = codec_ ? compressed({values}, size) : values;
  const auto storedSize = static_cast<std::int64_t>(stored.size());
  const std::string header = dictionaryHeader(size, storedSize, count);
  PARQUET_ASSIGN_OR_THROW(dictionaryOffset_, sink_.Tell());
  put(header);
  put(stored);
  this->count(header, size, storedSize);
  ++dictionaryPages_[Encoding::PLAIN];
}

void ChunkPages::addData(const ColumnPage& page, Encoding::type encoding, const Pieces& values) {
  const auto size = std::accumulate(
      values.begin(), values.end(), std::int64_t{0},
      [](std::int64_t sum, std::string_view piece) { return sum + std::int64_t(piece.size()); });
  std::string_view stored;
  if (codec_ && isWorthwhile_ && encoding == Encoding::DELTA_BINARY_PACKED) {
    isWorthwhile_ = shrinksInPart(values.front());
  }
  if (codec_ && isWorthwhile_) {
    stored = compressed(values, size);
    isWorthwhile_ = isSaving(stored.size(), size);
  }
  const bool isCompressed = codec_ && isWorthwhile_;
  const auto storedSize = isCompressed ? static_cast<std::int64_t>(stored.size()) : size;
  const std::string header = dataHeader(page, encoding, size, storedSize, isCompressed);
  if (dataPages_.empty()) {
    PARQUET_ASSIGN_OR_THROW(dataOffset_, sink_.Tell());
  }
  put(header);
  put(page.levels);
  if (isCompressed) {
    put(stored);
  } else {
    for (const std::string_view piece : values) put(piece);
  }
  const auto levels = static_cast<std::int64_t>(page.levels.size());
  count(header, levels + size, levels + storedSize);
  values_ += page.entries();
  ++dataPages_[encoding];
}

std::int64_t ChunkPages::finish() {
  metadata_.Finish(values_, dictionaryOffset_, /*index_page_offset=*/-1, dataOffset_, bytes_,
                   uncompressedBytes_, /*has_dictionary=*/!dictionaryPages_.empty(),
                   /*dictionary_fallback=*/false, dictionaryPages_, dataPages_);
  metadata_.WriteTo(&sink_);
  return uncompressedBytes_;
}

std::string_view ChunkPages::compressed(const Pieces& values, std::int64_t size) {
  std::string_view all = values.empty() ? std::string_view() : values.front();
  if (values.size() > 1) {
    joined_.clear();
    for (const std::string_view piece : values) joined_ += piece;
    all = joined_;
  }
  const auto* const from = reinterpret_cast<const std::uint8_t*>(all.data());
  const std::int64_t room = codec_->MaxCompressedLen(size, from);
  const auto needed = static_cast<std::size_t>(room);
  if (compressed_.size() < needed) compressed_.extend(needed - compressed_.size());
  PARQUET_ASSIGN_OR_THROW(
      const std::int64_t bytes,
      codec_->Compress(size, from, room, reinterpret_cast<std::uint8_t*>(compressed_.data())));
  return {compressed_.data(), static_cast<std::size_t>(bytes)};
}

bool ChunkPages::shrinksInPart(std::string_view values) {
  const auto part = static_cast<std::int64_t>(values.size()) / kSampledPart;
  if (part < kLeastSample) return true;
  const auto length = static_cast<std::size_t>(part);
  return isSaving(compressed({values.substr((values.size() - length) / 2, length)}, part).size(),
                  part);
}

void ChunkPages::put(std::string_view bytes) {
  PARQUET_THROW_NOT_OK(sink_.Write(bytes.data(), static_cast<std::int64_t>(bytes.size())));
}

void ChunkPages::count(std::string_view header, std::int64_t uncompressed, std::int64_t stored) {
  uncompressedBytes_ += static_cast<std::int64_t>(header.size()) + uncompressed;
  bytes_ += static_cast<std::int64_t>(header.size()) + stored;
}

}  // namespace kyr::parquet
