#pragma once

#include <arrow/type_fwd.h>
#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "files/FlatFileReader.h"
#include "files/growing/GrowingFile.h"
#include "safe/SharedStore.h"
#include "safe/SignalLabel.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// A finished Parquet file, whoever wrote it.
class StoredRows {
 public:
  /// \throws std::runtime_error, std::system_error naming the file if it cannot be read
  explicit StoredRows(const std::filesystem::path& path);

  std::uint64_t rows() const { return index_.rows(); }
  ::arrow::Compression::type codec() const;
  std::shared_ptr<::arrow::Table> read(std::uint64_t first, std::uint64_t count) {
    return reader_.read(index_, first, count, std::nullopt);
  }

 private:
  std::shared_ptr<const DiskFile> file_;
  BatchIndex index_;
  RowReader reader_;
};

/// One content, which grows, and all parts whose rows are a beginning of it.
///
/// The rows are on disk up to a point, in batches, and in memory from there on. The last batch that
/// went to disk stays in memory until the next rows come, so that those who follow one chunk behind
/// are compared with memory.
///
/// Streams form a tree: where a part stops to be equal, it goes on in another stream, which begins
/// with a copy of the common rows and hangs where they part, under what comes there. The next part
/// that leaves at the same row with the same content finds it there, and copies nothing.
///
/// Held by the parts that share it; the file is deleted with the last one.
class SharedStream : public std::enable_shared_from_this<SharedStream> {
 public:
  /// A stream without rows.
  static std::shared_ptr<SharedStream> create(std::shared_ptr<SharedStore> store,
                                              const SampleSchema& schema, std::size_t width,
                                              const SharedStore::Compression& compression);

  /// A sealed stream over a file that is there, or over \p packed rows if there are any. Neither is
  /// read before open(). Parts that are appended do not find it.
  static std::shared_ptr<SharedStream> adopt(std::shared_ptr<SharedStore> store, int id,
                                             PackedRows packed);

  ~SharedStream();
  SharedStream(const SharedStream&) = delete;
  SharedStream& operator=(const SharedStream&) = delete;

  /// Finds out how many rows there are, in a file that is there.
  /// \throws std::runtime_error, std::system_error naming the file if it cannot be read
  void open();

  int id() const { return id_; }
  std::uint64_t rows() const { return memoryStart_ + memory_->rows(); }
  const SampleSchema& schema() const { return memory_->schema(); }
  std::size_t width() const { return width_; }

  /// Whether nothing can follow any more.
  bool isSealed() const { return sealed_; }

  /// Adds rows at the end. Writes the batch that is due before, if any.
  /// \param batchRows  rows of a batch; 0 for as many as the store's options say
  /// \throws std::exception  if that fails; nothing is added then, and the call may be repeated
  void extend(const RowSlice& rows, std::size_t batchRows);

  /// Writes what is in memory only, as the last batch.
  void flush();
  /// Writes the rest and completes the file, or keeps the rows in memory if the store holds such
  /// small contents. Nothing can follow.
  void seal();
  /// Adds all rows of a stream without rows, and seals it, as seal().
  void sealWith(const RowSlice& rows);

  /// Whether a sealed stream has a file of its own. Others are held in memory, or in a pack.
  bool hasFile() const { return hasFile_; }
  /// Gives a stream its file if it is sealed and has none.
  void writeOut();
  /// Likewise, if the rows are held in memory.
  void flushHeld() {
    if (heldBytes_ > 0) writeOut();
  }
  /// Writes the rows of a sealed stream without a file to a file of another directory.
  void writeCopy(const std::filesystem::path& path, bool sync);
  /// What the file has, or would have.
  ::arrow::Compression::type codec() const;

  void sync();

  /// First row that is in memory.
  std::uint64_t memoryStart() const { return memoryStart_; }
  RowSlice inMemory(std::uint64_t from, std::size_t count) const {
    return memory_->slice(static_cast<std::size_t>(from - memoryStart_), count);
  }

  /// The first few rows, while they are not in memory() any more: most contents that begin alike
  /// part soon, and are told apart without reading.
  const RowStore* head() const { return head_ ? &*head_ : nullptr; }

  /// A batch on disk.
  struct Batch {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    XXH128_hash_t digest{};
  };
  /// The batch that holds a row that is on disk; null if the batches are not known.
  const Batch* batchOf(std::uint64_t row) const;

  /// Rows of any part of the stream, as tables in order: from disk, then from memory.
  std::vector<std::shared_ptr<::arrow::Table>> read(std::uint64_t from, std::uint64_t to);
  /// All rows of a sealed stream of numbers, read from its file without tables.
  /// \param type  of the numbers
  /// \param out  is overwritten
  /// \return whether it is such a stream, whose file can be read so
  template <typename T>
  bool readNumbers(const ::arrow::DataType& type, std::vector<T>& out) const {
    return sealed_ && hasFile_ && readFlatFile(store_->fileOf(id_), &type, out) &&
           (!memory_ || out.size() * sizeof(T) == rows() * width_);
  }
  /// The same rows without tables, if all are in memory or in a pack.
  std::optional<HeldRows> held(std::uint64_t from, std::uint64_t to);

  /// Streams that part from this one.
  Forks& forks() { return forks_; }

  /// A new stream of the first \p row rows of this one, known to all who leave it there.
  /// \param key  what follows them
  std::shared_ptr<SharedStream> fork(const ForkKey& key,
                                     const SharedStore::Compression& compression,
                                     std::size_t batchRows);

  /// What follows where a content ends. A row has this digest by a chance of one in 2^128 only.
  static ForkKey endKey(std::uint64_t row) { return {row, 0, 0}; }

  /// If the stream was made because a part ended where another content went on: that other one.
  SharedStream* longerOne() const {
    return parent_ != nullptr && key_ == endKey(key_.row) ? parent_ : nullptr;
  }

  /// The parts that share the stream. What they are called is written into the file when it is
  /// made, with its first batch.
  void join(PartLabel* label) noexcept {
    label->before = nullptr;
    label->after = labels_;
    if (labels_ != nullptr) labels_->before = label;
    labels_ = label;
  }
  void part(PartLabel* label) noexcept {
    if (label->after != nullptr) label->after->before = label->before;
    (label->before != nullptr ? label->before->after : labels_) = label->after;
  }

  /// Makes the stream known among those that begin in nothing.
  void hangUnderRoot(Forks& roots, const ForkKey& key);

 private:
  SharedStream(std::shared_ptr<SharedStore> store, int id);

  void hangUnder(Forks& forks, SharedStream* parent, const ForkKey& key);
  void takeOut() noexcept;
  // Rows of a batch of what is not on disk.
  std::size_t batchLength(const RowSlice& rows, std::size_t batchRows) const;
  bool mayHaveBatch(std::size_t batchRows) const;
  void writeFullBatches(std::size_t batchRows);
  void writeAll();
  // Writes the first rows that are not on disk.
  void writeRows(std::size_t count);
  template <typename Create>
  void createFile(Create&& create);
  // Gives the file's descriptor back if others need it more.
  void spareDescriptor();
  void writeWhole(const RowSlice& rows);
  void keepHead(const RowSlice& rows);
  // Calls \p visit with the first row of each batch of the rows, and the batch.
  template <typename Visit>
  void forEachBatch(const RowSlice& rows, Visit&& visit) const;
  void writePlain(const std::filesystem::path& path, const RowSlice& rows, bool sync) const;
  // Counts the rows in memory as held there.
  void hold();
  SharedStore::Compression askedCodec() const;
  void openFile();
  std::shared_ptr<const ::arrow::KeyValueMetadata> describedParts() const;
  // Of the rows in memory.
  void dropFront(std::size_t rows, std::size_t batches);
  std::size_t unwritten() const { return static_cast<std::size_t>(rows() - diskRows_); }

  std::shared_ptr<SharedStore> store_;
  int id_;
  std::size_t width_ = 1;
  SharedStore::Compression compression_;
  std::unique_ptr<GrowingFile> file_;  // from the first batch on, until the stream is sealed
  bool hasFile_ = false;               // of its id, which goes with the stream
  PackedRows packed_;                  // instead of a file, if there is a pack
  std::size_t heldBytes_ = 0;          // that are in memory instead of a file
  bool hasUnsynced_ = false;
  std::vector<Batch> batches_;
  std::uint64_t diskRows_ = 0;
  std::uint64_t memoryStart_ = 0;
  std::optional<RowStore> memory_;  // none before open()
  std::optional<RowStore> head_;
  bool sealed_ = false;

  PartLabel* labels_ = nullptr;  // the first of a list; borrowed

  // Place in the tree. The map is the parent's, or a root's of the store.
  Forks forks_;
  Forks* place_ = nullptr;
  SharedStream* parent_ = nullptr;
  ForkKey key_;
};

}  // namespace kyr::parquet
