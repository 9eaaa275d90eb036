#include "files/ContentDigest.h"

namespace kyr::parquet {

std::string digestOf(ContentReader& content) {
  ContentDigester digester(content.schema(), content.hasTimes());
  forEachPiece(content, [&](std::uint64_t /*first*/, const RowSlice& rows, const double* times) {
    digester.add(rows, times);
  });
  return digester.digest();
}

ContentSummary summaryOf(ContentReader& content) {
  ContentSummarizer summarizer(content.schema(), content.hasTimes());
  forEachPiece(content, [&](std::uint64_t /*first*/, const RowSlice& rows, const double* times) {
    summarizer.add(rows, times);
  });
  return summarizer.summary();
}

}  // namespace kyr::parquet
