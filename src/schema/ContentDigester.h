#pragma once

#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "schema/RowStore.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

/// Makes the digest of a content, which depends on the names and types of its columns and on its
/// rows, and on nothing else: two recordings have equal rows wherever they have equal digests, in
/// whatever batches, encodings and files the rows lie. docs/format.md says how it is made.
///
/// Rows that come in whole blocks cost one look at their bytes, and 16 bytes of memory for each
/// block and column. Others need about 600 bytes more for each column.
class ContentDigester {
 public:
  /// Rows that have a digest of their own, of which the content's digest is made.
  static constexpr std::size_t kBlockRows = 65'536;

  /// \param schema  of the columns "data" and "dimension"
  /// \param hasTimes  whether there is a column "time" before them
  explicit ContentDigester(SampleSchema schema, bool hasTimes = false);

  /// Adds the rows that follow.
  /// \param times  of the rows, if there is a column of them
  /// \param known  the digest of the rows' elements, if the caller has it
  void add(const RowSlice& rows, const double* times = nullptr,
           const std::optional<XXH128_hash_t>& known = std::nullopt);
  /// Adds the rows that follow, behind which there are no more. That is faster than add().
  void addLast(const RowSlice& rows, const std::optional<XXH128_hash_t>& known = std::nullopt);

  std::uint64_t rows() const { return rows_; }
  /// The digest of the rows that were added, as 32 lower-case hexadecimal digits.
  std::string digest() const;

 private:
  // Values of a column: the digests of their blocks, one after the other.
  class Stream {
   public:
    /// \param known  the digest of the values, if it is known
    void addBlock(const void* values, std::size_t bytes,
                  const std::optional<XXH128_hash_t>& known = std::nullopt);
    /// Adds a part of a block.
    void add(const void* values, std::size_t bytes);
    void finishBlock();
    /// \param isOpen  whether there are parts of a block that is not finished
    XXH128_hash_t digest(bool isOpen) const;

   private:
    std::optional<XXH128_canonical_t> first_;  // small contents have one block
    std::string others_;
    std::unique_ptr<XXH3_state_t> state_;  // of a block that comes in parts
  };

  // Adds rows of one block.
  // \param isBlock  whether they are all of the block
  void addPiece(const RowSlice& rows, const double* times,
                const std::optional<XXH128_hash_t>& known, bool isBlock);
  // Adds the lengths of rows that end there.
  void addLengths(Stream& stream, const std::uint64_t* ends, std::uint64_t begin, std::size_t count,
                  bool isBlock);
  template <typename Visit>
  void forEachStream(Visit&& visit);

  SampleSchema schema_;
  bool hasTimes_;
  Stream times_;
  Stream elements_;
  Stream lengths_;  // of lists and blobs
  Stream extents_;  // this and the next are of the column "dimension"
  Stream extentCounts_;
  std::uint64_t rows_ = 0;
  bool isOpen_ = false;                // whether rows of a block were added that is not finished
  std::vector<std::uint64_t> counts_;  // memory for lengths
};

}  // namespace kyr::parquet
