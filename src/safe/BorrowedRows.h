#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "safe/BatchDigests.h"
#include "safe/ContentName.h"
#include "safe/ContentRows.h"

namespace kyr::parquet {

/// Rows of a saved recording, which are read where they lie. The recording opens the file whenever
/// rows are asked for, and may close it afterwards.
class BorrowedRows final : public ContentRows {
 public:
  /// \param name  with the id under which the store's lender has the content
  BorrowedRows(ContentName& name, std::uint64_t rows)
      : name_(name), lentId_(name.id()), rows_(rows) {}

  std::uint64_t count() override { return rows_; }
  const SampleSchema& schema() override;
  std::size_t width() override { return elementBytes(schema()); }
  /// Packs without a codec leave it open which one a file gets.
  AskedCodec askedCodec() override;
  ::arrow::Compression::type codec() override { return open()->codec(); }
  /// Only rows of packs, which are small, are decoded as a whole.
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) override;
  Tables read(std::uint64_t from, std::uint64_t to) override;
  bool readTimes(std::vector<double>& times) override;
  bool readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                    std::vector<int>& sizes) override;
  const BatchDigests* digests() const override;
  const ContentSummary* summary() const override;
  std::unique_ptr<ContentRows> moveToOwnFile() override;
  bool copyFile(const std::filesystem::path& path, bool sync) override;

 private:
  static bool holdsNumbers(const ContentReader& reader, const ::arrow::DataType& type);

  std::shared_ptr<ContentReader> open() const { return name_.store().lender()->open(lentId_); }

  ContentName& name_;
  int lentId_;
  std::uint64_t rows_;
  // Both are known once somebody asked for them.
  std::optional<SampleSchema> schema_;
  mutable std::unique_ptr<const ContentSummary> summary_;
};

}  // namespace kyr::parquet
