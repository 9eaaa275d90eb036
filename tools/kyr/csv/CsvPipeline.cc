#include "csv/CsvPipeline.h"

#include <utility>

namespace kyr::tool {

bool CsvPipeline::begin(const std::vector<CellPlan>& plans) {
  CsvBlock block;
  if (!cutter_.next(block)) return false;
  auto values = spare_.empty() ? std::make_unique<BlockValues>() : std::move(spare_.back());
  if (!spare_.empty()) spare_.pop_back();
  const auto read = [this, block, plans](std::unique_ptr<BlockValues> out) {
    readBlock(block, dialect_, plans, *out);
    return out;
  };
  begun_.push_back(std::async(std::launch::async, read, std::move(values)));
  return true;
}

std::unique_ptr<BlockValues> CsvPipeline::next(const std::vector<CellPlan>& plans,
                                               std::size_t ahead) {
  if (begun_.empty() && !begin(plans)) return nullptr;
  while (begun_.size() <= ahead && begin(plans)) {
  }
  auto values = begun_.front().get();
  begun_.pop_front();
  return values;
}

}  // namespace kyr::tool
