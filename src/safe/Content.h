#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "safe/ContentName.h"
#include "safe/ContentRows.h"
#include "safe/ContentTree.h"
#include "safe/SharedStore.h"

namespace kyr::parquet {

/// One content of a safe pool: rows that are stored once, for all parts that begin with them. A
/// part is as many of the first rows as it has appended.
///
/// Parts share a content by holding it; its file goes with the last one. How the rows lie is the
/// business of ContentRows: finishing a content, or giving it a file, replaces them by others.
///
/// Failures of files are std::system_error or std::runtime_error and name the file; nothing has
/// changed then, and the call may be repeated.
class Content : public std::enable_shared_from_this<Content> {
 public:
  /// A content without rows.
  /// \param width  bytes of an element
  static std::shared_ptr<Content> create(std::shared_ptr<SharedStore> store,
                                         const SampleSchema& schema, std::size_t width,
                                         const AskedCodec& codec);

  /// The finished content of that id: the one that other parts have, or over what was offered for
  /// the id, or over the file of the id, which need not exist before it is read. Parts that are
  /// appended do not find a content that was taken over.
  static std::shared_ptr<Content> takeOver(std::shared_ptr<SharedStore> store, int id);

  Content(const Content&) = delete;
  Content& operator=(const Content&) = delete;

  int id() const { return name_.id(); }
  PartLabels& labels() { return name_.labels(); }
  ContentNode& node() { return node_; }

  std::uint64_t rows() { return rows_->count(); }
  const SampleSchema& schema() { return rows_->schema(); }
  /// Bytes of an element.
  std::size_t width() { return rows_->width(); }
  /// The codec of the file, or of the one that the content would get.
  ::arrow::Compression::type codec() { return rows_->codec(); }

  /// The rows, if more rows can follow; else null.
  GrowingRows* growing() { return growing_; }
  /// What is known of rows that are not in memory; null if nothing is.
  const BatchDigests* digests() const { return rows_->digests(); }
  /// What is known of all rows; null if nothing is, or if more rows can follow.
  const ContentSummary* summary() const { return rows_->summary(); }

  // These do what those of ContentRows do.
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) {
    return rows_->inMemory(from, to);
  }
  Tables read(std::uint64_t from, std::uint64_t to) { return rows_->read(from, to); }
  bool readTimes(std::vector<double>& times) { return rows_->readTimes(times); }
  bool readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                    std::vector<int>& sizes) {
    return rows_->readElements(type, elements, sizes);
  }

  /// All rows in memory, where they are read to if they are not there.
  HeldRows allRows();

  /// Brings all rows to disk.
  void flush() { replaceRows(rows_->flush()); }
  /// Lets no more rows follow. All rows go to disk, or stay in memory if the store keeps contents
  /// of so few bytes there.
  void finish() { replaceRows(rows_->finish()); }
  /// Adds all rows of a content that has none, and finishes it.
  void finishWith(const RowSlice& rows);

  /// Whether the content has a file of its own in the pool's directory. Others are in memory, in a
  /// pack or in a borrowed file.
  bool hasOwnFile() const { return rows_->hasOwnFile(); }
  /// Gives a finished content such a file if it has none.
  void moveToOwnFile() { replaceRows(rows_->moveToOwnFile()); }
  /// Writes the rows to a new file that does not belong to the pool.
  void writeCopy(const std::filesystem::path& path, bool sync);

  /// A new content of the first rows of this one, as many as the key says, which becomes its child.
  std::shared_ptr<Content> makeChild(const ContentKey& key, const AskedCodec& codec,
                                     std::size_t batchRows);

 private:
  Content(std::shared_ptr<SharedStore> store, int id) : name_(std::move(store), id) {}

  void setRows(std::unique_ptr<ContentRows> rows);
  // Takes the rows that follow from an operation, if there are any.
  void replaceRows(std::unique_ptr<ContentRows> next);

  GrowingRows* growing_ = nullptr;  // rows_->growing(), which each append asks for
  ContentName name_;
  ContentNode node_{*this};
  std::unique_ptr<ContentRows> rows_;  // uses the name
};

}  // namespace kyr::parquet
