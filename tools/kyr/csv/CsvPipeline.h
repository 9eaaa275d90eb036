#pragma once

#include <cstddef>
#include <deque>
#include <future>
#include <memory>
#include <string_view>
#include <vector>

#include "csv/CsvBlocks.h"
#include "csv/CsvCells.h"

namespace kyr::tool {

/// Takes the blocks of a CSV text apart, in their order; some ahead, each in a thread of its own.
class CsvPipeline {
 public:
  explicit CsvPipeline(std::string_view text) : cutter_(text) {}

  /// The next block's values; null at the end.
  /// \param plans  of blocks that are begun from now on: those before were begun with earlier ones
  /// \param ahead  blocks that are read while the caller works on this one
  std::unique_ptr<BlockValues> next(const std::vector<CellPlan>& plans, std::size_t ahead);

  /// For its memory to be used again.
  void giveBack(std::unique_ptr<BlockValues> values) { spare_.push_back(std::move(values)); }

 private:
  bool begin(const std::vector<CellPlan>& plans);

  CsvBlockCutter cutter_;
  std::vector<std::unique_ptr<BlockValues>> spare_;
  std::deque<std::future<std::unique_ptr<BlockValues>>> begun_;
};

}  // namespace kyr::tool
