#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "safe/SharedStore.h"
#include "safe/SharedStream.h"
#include "schema/PartTables.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// The rows of one part (time or data) of a signal of a safe pool, in the order in which they were
/// appended: a beginning of a shared stream, and perhaps rows that were not compared with it yet.
///
/// What is compared: rows that follow a stream's last one are added to it. Rows that the stream has
/// in memory are compared with them. Where it has them on disk only, they are gathered until they
/// make up the batch there, and compared by 128 bits; so a part that repeats a stored one keeps a
/// batch of it in memory at the most, and reads nothing. From the first difference on the part goes
/// on in another stream.
///
/// A call that throws has changed nothing, and may be repeated.
class SharedPart {
 public:
  SharedPart(std::shared_ptr<SharedStore> store, PartLabel label)
      : store_(std::move(store)), label_(std::make_unique<PartLabel>(std::move(label))) {}
  ~SharedPart() { moveTo(nullptr); }
  SharedPart(SharedPart&&) = default;
  SharedPart& operator=(SharedPart&& other) noexcept;

  void append(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width);
  void append(const SampleSchema& schema, const RowSlice& rows, std::size_t width);

  /// Appends all rows of the part, which has none yet, and finishes it. Those that are not stored
  /// yet go to disk from where they lie.
  void store(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width);

  /// Brings all rows to disk, in a complete file that holds these rows and no others.
  void finish();

  /// Brings all rows to disk.
  void flush();

  /// Forgets the rows. The file goes when no other part has it.
  void reset();

  /// Takes over a file that is there.
  void adopt(int id);

  /// \throws std::exception  if the part is over a file that cannot be opened
  std::uint64_t rows();
  std::optional<int> id() const;

  /// Rows [from, to) where they are in memory, or soon are; those beyond the end are left out. Empty
  /// if they are to be read(), or there are none.
  std::optional<HeldRows> held(std::uint64_t from, std::uint64_t to);

  /// Rows [from, to) in tables, in order; those beyond the end are left out. The tables are good
  /// until the part changes.
  std::vector<std::shared_ptr<::arrow::Table>> read(std::uint64_t from, std::uint64_t to);

  /// As SharedStream::readNumbers(), if the part is all of a stream. A file that was taken over
  /// need not be opened before.
  template <typename T>
  bool readNumbers(const ::arrow::DataType& type, std::vector<T>& out) const {
    return stream_ && (!isOpened_ || (pendingRows() == 0 && equalRows_ == stream_->rows())) &&
           stream_->readNumbers(type, out);
  }

  void setBatchRows(std::size_t rows) { batchRows_ = rows; }
  void setCompression(const SharedStore::Compression& compression) { compression_ = compression; }
  const SharedStore::Compression& compression() const { return compression_; }

 private:
  // What can be said of pending rows: how many are equal to the stream's, and whether the next one
  // differs, or cannot be compared yet.
  struct Finding {
    std::size_t equal = 0;
    bool differs = false;
    bool waits = false;
  };

  std::size_t pendingRows() const { return pending_ ? pending_->rows() : 0; }
  void appendRows(const RowSlice& rows);
  void requireSameSchema(const SampleSchema& schema);
  // Whether the rows begin as a stream that there is; they are appended then.
  bool beginAsAnother(const SampleSchema& schema, const RowSlice& rows);
  bool appendAtOnce(const RowSlice& rows);
  // Runs \p operation; what it did to the part is undone if it throws.
  template <typename Operation>
  void guarded(Operation&& operation);
  // Compares rows that follow the equal ones, all of them if \p isLast; returns how many found
  // their place.
  std::size_t settle(const RowSlice& rows, bool isLast);
  void settlePending(bool isLast);
  Finding compare(const RowSlice& rest, bool isLast);
  Finding compareWithMemory(const RowSlice& rest);
  Finding compareWithDisk(const RowSlice& rest, bool isLast);
  void moveTo(std::shared_ptr<SharedStream> stream) noexcept;
  // Goes on in a stream in which \p next follows, or nothing.
  void leave(const ForkKey& key);
  void openStream();

  std::shared_ptr<SharedStore> store_;
  std::unique_ptr<PartLabel> label_;
  std::shared_ptr<SharedStream> stream_;
  bool isOpened_ = true;  // false for a file that was taken over, before its first use
  std::shared_ptr<::arrow::Schema> checkedSchema_;  // the last one that fitted
  RowShapes shapes_;                                // of the last chunk
  std::uint64_t equalRows_ = 0;                     // of the stream, that are this part's
  std::optional<RowStore> pending_;                 // rows behind them
  std::size_t batchRows_ = 0;
  SharedStore::Compression compression_;
};

}  // namespace kyr::parquet
