#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "safe/BatchDigests.h"
#include "safe/ContentName.h"
#include "safe/ContentRows.h"
#include "safe/SpilledRuns.h"
#include "schema/ContentSummary.h"

namespace kyr::parquet {

/// Rows of a finished content that has no file yet, of which the first ones left memory while they
/// grew, and the others are in memory still.
class SpilledRows final : public ContentRows {
 public:
  /// \param rows  those in memory
  SpilledRows(ContentName& name, SpilledRuns runs, RowStore rows, const AskedCodec& codec,
              BatchDigests digests, ContentSummary summary);
  ~SpilledRows() override;

  std::uint64_t count() override { return runs_.end() + rows_.rows(); }
  const SampleSchema& schema() override { return rows_.schema(); }
  std::size_t width() override { return rows_.width(); }
  AskedCodec askedCodec() override { return codec_; }
  ::arrow::Compression::type codec() override {
    return name_.store().layouts().codec(schema().schema, codec_);
  }
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) override;
  Tables read(std::uint64_t from, std::uint64_t to) override;
  const BatchDigests* digests() const override { return &digests_; }
  const ContentSummary* summary() const override { return &summary_; }
  std::unique_ptr<ContentRows> flush() override { return moveToOwnFile(); }
  std::unique_ptr<ContentRows> moveToOwnFile() override;

 private:
  ContentName& name_;
  SpilledRuns runs_;
  RowStore rows_;
  AskedCodec codec_;
  BatchDigests digests_;
  ContentSummary summary_;
};

/// A table over rows, which keeps them.
std::shared_ptr<::arrow::Table> tableOfHeld(const SampleSchema& schema, HeldRows rows);

}  // namespace kyr::parquet
