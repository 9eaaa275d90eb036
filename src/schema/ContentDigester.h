#pragma once

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
  explicit ContentDigester(const SampleSchema& schema, bool hasTimes = false);
  ~ContentDigester();
  ContentDigester(ContentDigester&&) noexcept;
  ContentDigester& operator=(ContentDigester&&) noexcept;

  /// Adds the rows that follow.
  /// \param times  of the rows, if there is a column of them
  /// \param known  the digest of the rows' elements, if the caller has it
  void add(const RowSlice& rows, const double* times = nullptr,
           const std::optional<XXH128_hash_t>& known = std::nullopt);

  std::uint64_t rows() const { return rows_; }
  /// The digest of the rows that were added, as 32 lower-case hexadecimal digits. More may follow.
  std::string digest() const;

 private:
  class Stream;
  struct Column;

  void addPiece(const RowSlice& rows, const double* times,
                const std::optional<XXH128_hash_t>& known);
  // Adds the lengths of rows that end there.
  void addLengths(Stream& stream, const std::uint64_t* ends, std::uint64_t begin,
                  std::size_t count);

  std::vector<Column> columns_;
  Column* times_ = nullptr;  // this and the next two are among the columns
  Column* data_ = nullptr;
  Column* dimensions_ = nullptr;
  std::uint64_t rows_ = 0;
  bool isBlock_ = false;                // whether the rows that are being added are a whole block
  std::vector<std::uint64_t> lengths_;  // memory for them
};

}  // namespace kyr::parquet
