#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "safe/ContentName.h"
#include "safe/ContentRows.h"

namespace kyr::parquet {

/// Rows of a small finished content, which stay in memory until a file of them is asked for.
class MemoryRows final : public ContentRows {
 public:
  MemoryRows(ContentName& name, RowStore rows, std::size_t width, const AskedCodec& codec)
      : name_(name), width_(width), codec_(codec), rows_(std::move(rows)) {
    name_.store().addToMemory(bytesIn(rows_.slice()));
  }
  ~MemoryRows() override { name_.store().takeFromMemory(bytesIn(rows_.slice())); }

  std::uint64_t count() override { return rows_.rows(); }
  const SampleSchema& schema() override { return rows_.schema(); }
  std::size_t width() override { return width_; }
  AskedCodec askedCodec() override { return codec_; }
  ::arrow::Compression::type codec() override {
    return name_.store().layouts().codec(schema().schema, codec_);
  }
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) override;
  Tables read(std::uint64_t from, std::uint64_t to) override;
  std::unique_ptr<ContentRows> flush() override { return moveToOwnFile(); }
  std::unique_ptr<ContentRows> moveToOwnFile() override;

 private:
  ContentName& name_;
  std::size_t width_;
  AskedCodec codec_;
  RowStore rows_;
};

}  // namespace kyr::parquet
