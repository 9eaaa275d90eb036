#include "streaming/PartBuffer.h"

#include <arrow/table.h>

namespace kyr::parquet {

void PartBuffer::takeBatches(std::size_t batchRows,
                             const std::function<void(const ::arrow::Table&)>& write) {
  std::size_t taken = 0;
  for (; rows() - taken >= batchRows; taken += batchRows) write(*rows_.table(taken, batchRows));
  if (taken > 0) rows_.dropFront(taken, taken / batchRows);
}

void PartBuffer::takeAll(const std::function<void(const ::arrow::Table&)>& write) {
  if (rows() > 0) write(*rows_.table(0, rows()));
  rows_ = RowStore(SampleSchema(rows_.schema()), width_);  // gives the memory back
}

}  // namespace kyr::parquet
