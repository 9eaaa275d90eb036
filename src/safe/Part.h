#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Prefetch.h"
#include "safe/Content.h"
#include "safe/GrowingRows.h"
#include "safe/SharedStore.h"
#include "safe/SignalLabel.h"
#include "schema/PartTables.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// The rows of one part (time or data) of a signal of a safe pool, in the order in which they were
/// appended. A part follows a content: it is the content's first rows, and perhaps pending rows
/// behind them that were not compared with the content yet.
///
/// Rows that follow the last row of a content that grows are added to it. Rows that the content has
/// in memory are compared with them. Where the content has them on disk only, rows are pending
/// until they make up the batch there, and are compared by 128 bits; so a part that repeats a
/// stored one keeps a batch of it in memory at the most, and reads nothing. From the first
/// difference on the part follows another content.
///
/// A call that throws has changed nothing, and may be repeated.
class Part {
 public:
  Part(std::shared_ptr<SharedStore> store, PartLabel label)
      : store_(std::move(store)), label_(std::make_unique<PartLabel>(std::move(label))) {}
  ~Part() { follow(nullptr); }
  Part(Part&&) = default;
  Part& operator=(Part&& other) noexcept;

  void append(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width);
  void append(const SampleSchema& schema, const RowSlice& rows, std::size_t width);

  /// Appends a row of a flat column if the content has the same next, in memory. Rows of that
  /// column were appended before.
  /// \return whether it has
  template <std::size_t kWidth>
  bool appendRepeated(const void* row) {
    if (!content_ || checkedSchema_ == nullptr || pendingRows() > 0) return false;
    const GrowingRows* const growing = content_->growing();
    if (growing == nullptr || !growing->hasRow<kWidth>(shared_, row)) return false;
    ++shared_;
    return true;
  }
  /// The same for a column that may be another one than before.
  bool appendRepeated(const SampleSchema& schema, const char* row, std::size_t width);
  /// How many more rows of a flat column append() would only copy, one by one or at once: nobody
  /// else has the content, its memory need not grow, and no batch is due.
  std::size_t spareRows(const SampleSchema& schema);
  /// Takes rows that spareRows() counted. If they cannot be copied to the content any more, they
  /// wait, so that nothing fails here.
  void take(const RowSlice& rows);

  /// Has the processor load the content, which the next append needs.
  void prefetchContent() const {
    if (content_) prefetch(content_.get());
  }
  /// The same for its rows.
  void prefetchRows() const;

  /// Appends all rows of the part, which has none yet, and finishes it. Rows that are not stored
  /// yet go to disk from where they lie.
  void store(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width);

  /// Brings all rows to disk, in a complete file that holds these rows and no others.
  void finish();

  /// Brings all rows to disk.
  void flush();

  /// What a part was before it was cut.
  struct Uncut {
    std::shared_ptr<Content> content;  // null if nothing was cut
    std::uint64_t rows = 0;
  };

  /// Forgets the rows behind the first \p rows. If the content has more rows, finish() gives the
  /// part a file that ends there.
  /// \return what restore() needs to undo it; the rows are there as long as it is
  Uncut cut(std::uint64_t rows);
  void restore(Uncut before);

  /// Forgets the rows. The file is deleted when no other part has it.
  void reset();

  /// Takes over the content of that id, as Content::takeOver().
  void takeOver(int id);

  /// \throws std::exception  if the part was taken over and its file cannot be read
  std::uint64_t rows();
  std::optional<int> id() const;

  /// Rows [from, to) without those beyond the end, if they are in memory or can be decoded to it as
  /// a whole; empty otherwise, and where there are none. Valid until the part changes.
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to);

  /// Rows [from, to) without those beyond the end, in tables in order. Valid until the part
  /// changes.
  Tables read(std::uint64_t from, std::uint64_t to);

  /// These do what those of ContentRows do, if the part is all of a content.
  bool readTimes(std::vector<double>& times);
  bool readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                    std::vector<int>& sizes);

  void setBatchRows(std::size_t rows) { batchRows_ = rows; }
  void setCodec(const AskedCodec& codec) { codec_ = codec; }
  const AskedCodec& codec() const { return codec_; }

 private:
  // All rows of a content that was taken over, however many it turns out to have.
  static constexpr std::uint64_t kAllRows = std::numeric_limits<std::uint64_t>::max();

  // What a comparison of rows with the content's has told.
  struct Finding {
    std::size_t equal = 0;  // so many rows at the beginning are equal
    bool differs = false;   // the next one is not
    bool waits = false;     // the next ones can only be compared with more behind them
  };

  std::size_t pendingRows() const { return pending_ ? pending_->rows() : 0; }
  bool isAllOfContent();
  void requireSameSchema(const SampleSchema& schema);
  // Follows a content that begins with the same row, if there is one, and appends the rows.
  bool appendToOther(const SampleSchema& schema, const RowSlice& rows);
  std::shared_ptr<Content> newContent(const SampleSchema& schema, std::size_t width) const;
  void appendRows(const RowSlice& rows);
  bool appendAtOnce(const RowSlice& rows);
  // Lets rows wait.
  void queue(const RowSlice& rows);
  std::size_t spareRows();
  // Runs \p operation. What it did to the part is undone if it throws.
  template <typename Operation>
  void guarded(Operation&& operation);
  // Shares or adds rows that follow the shared ones, all of them if \p isLast, and returns how
  // many; the others must wait.
  std::size_t place(const RowSlice& rows, bool isLast);
  void placePending(bool isLast);
  Finding compare(const RowSlice& rows, bool isLast);
  Finding compareWithDisk(const RowSlice& rows, bool isLast);
  void follow(std::shared_ptr<Content> content) noexcept;
  // Follows another content from here on, in which what the key says comes next.
  void leave(const ContentKey& key);

  // What each append needs comes first. Of thousands of signals that get a sample each in turn,
  // nothing stays in the processor's cache.
  std::shared_ptr<Content> content_;
  std::uint64_t shared_ = 0;                        // first rows of the content that are the part's
  std::unique_ptr<RowStore> pending_;               // rows behind them; null if there were none
  std::shared_ptr<::arrow::Schema> checkedSchema_;  // the last one that is the content's
  std::size_t batchRows_ = 0;
  std::shared_ptr<SharedStore> store_;
  std::unique_ptr<PartLabel> label_;
  RowShapes shapes_;  // of the last chunk; reused for its memory
  AskedCodec codec_;
};

}  // namespace kyr::parquet
