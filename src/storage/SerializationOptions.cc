#include "kyr/parquet/SerializationOptions.h"

#include <arrow/util/compression.h>

namespace kyr::parquet::serialization_options {

bool bDictionary = true;
std::int32_t dictionaryLimit = 1048576;
std::int32_t batchSize = 4096;
bool bSharedTimeColumn = true;
::arrow::Compression::type compressionMethod = ::arrow::Compression::UNCOMPRESSED;

}  // namespace kyr::parquet::serialization_options
