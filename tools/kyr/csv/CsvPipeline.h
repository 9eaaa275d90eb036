#pragma once

#include <cstddef>
#include <deque>
#include <future>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "csv/BlockReader.h"
#include "csv/CsvBlocks.h"

namespace kyr::tool {

/// Reads the blocks of a CSV text in their order, some of them ahead, each in a thread of its own.
/// Text and dialect must outlive the object.
class CsvPipeline {
 public:
  CsvPipeline(std::string_view text, const CsvDialect& dialect)
      : dialect_(dialect), cutter_(text, dialect) {}

  /// The values of the next block; null at the end.
  /// \param plans  for blocks that are begun from now on; earlier calls began some blocks already
  /// \param ahead  number of blocks that are read while the caller works on this one
  std::unique_ptr<BlockValues> next(const std::vector<CellPlan>& plans, std::size_t ahead);

  /// Takes values back, so that their memory is used again.
  void giveBack(std::unique_ptr<BlockValues> values) { spare_.push_back(std::move(values)); }

 private:
  bool begin(const std::vector<CellPlan>& plans);

  const CsvDialect& dialect_;
  CsvBlockCutter cutter_;
  std::vector<std::unique_ptr<BlockValues>> spare_;
  std::deque<std::future<std::unique_ptr<BlockValues>>> begun_;
};

}  // namespace kyr::tool
