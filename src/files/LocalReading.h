#pragma once

#include <parquet/properties.h>

namespace kyr::parquet {

/// How Arrow reads our files. Reading ahead pays off for remote files; for local ones it only
/// costs, per file.
inline ::parquet::ArrowReaderProperties localReading() {
  ::parquet::ArrowReaderProperties properties;
  properties.set_pre_buffer(false);
  return properties;
}

}  // namespace kyr::parquet
