#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "safe/ContentName.h"
#include "safe/ContentRows.h"

namespace kyr::parquet {

/// Rows of a small finished content, which stay in memory until a file of them is asked for.
class MemoryRows final : public ContentRows {
 public:
  /// \param memory  that the rows lie in
  MemoryRows(ContentName& name, const SampleSchema& schema, const RowSlice& rows,
             std::shared_ptr<const void> memory, std::size_t width, const AskedCodec& codec)
      : name_(name),
        schema_(schema),
        rows_(rows),
        memory_(std::move(memory)),
        width_(width),
        codec_(codec) {
    name_.store().addToMemory(bytesIn(rows_));
  }
  ~MemoryRows() override { name_.store().takeFromMemory(bytesIn(rows_)); }

  /// Takes the rows over.
  static std::unique_ptr<ContentRows> of(ContentName& name, RowStore rows, std::size_t width,
                                         const AskedCodec& codec);
  /// Copies the rows.
  static std::unique_ptr<ContentRows> of(ContentName& name, const SampleSchema& schema,
                                         const RowSlice& rows, std::size_t width,
                                         const AskedCodec& codec);

  std::uint64_t count() override { return rows_.rows; }
  const SampleSchema& schema() override { return schema_; }
  std::size_t width() override { return width_; }
  AskedCodec askedCodec() override { return codec_; }
  ::arrow::Compression::type codec() override {
    return name_.store().layouts().codec(schema_.schema, codec_);
  }
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) override;
  Tables read(std::uint64_t from, std::uint64_t to) override;
  std::unique_ptr<ContentRows> flush() override { return moveToOwnFile(); }
  std::unique_ptr<ContentRows> moveToOwnFile() override;

 private:
  ContentName& name_;
  SampleSchema schema_;
  RowSlice rows_;
  std::shared_ptr<const void> memory_;
  std::size_t width_;
  AskedCodec codec_;
};

}  // namespace kyr::parquet
