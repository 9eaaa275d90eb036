#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "files/pack/PackFile.h"
#include "safe/ContentName.h"
#include "safe/ContentRows.h"

namespace kyr::parquet {

/// Rows of a pack of a saved recording, which is read where it lies.
class PackedRows final : public ContentRows {
 public:
  PackedRows(ContentName& name, PackRange rows)
      : name_(name), packedId_(name.id()), range_(std::move(rows)) {}

  std::uint64_t count() override { return range_.count; }
  const SampleSchema& schema() override { return range_.pack->schema(); }
  std::size_t width() override { return range_.pack->width(); }
  /// A pack without a codec leaves it open which one a file gets.
  AskedCodec askedCodec() override;
  ::arrow::Compression::type codec() override { return range_.pack->codec(); }
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) override;
  Tables read(std::uint64_t from, std::uint64_t to) override;
  std::unique_ptr<ContentRows> moveToOwnFile() override;

 private:
  ContentName& name_;
  int packedId_;  // the id that the rows have in the pack
  PackRange range_;
};

}  // namespace kyr::parquet
