#include "files/ContentDigest.h"

#include "schema/ContentDigester.h"

namespace kyr::parquet {

std::string digestOf(ContentReader& content) {
  ContentDigester digester(content.schema(), content.hasTimes());
  forEachPiece(content, [&](std::uint64_t /*first*/, const RowSlice& rows, const double* times) {
    digester.add(rows, times);
  });
  return digester.digest();
}

}  // namespace kyr::parquet
