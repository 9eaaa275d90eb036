#include "files/ContentDigest.h"

namespace kyr::parquet {

ContentSummary summaryOf(ContentReader& content) {
  ContentSummarizer summarizer(content.schema(), content.hasTimes());
  forEachPiece(content, [&](std::uint64_t /*first*/, const RowSlice& rows, const double* times) {
    summarizer.add(rows, times);
  });
  return summarizer.summary();
}

}  // namespace kyr::parquet
