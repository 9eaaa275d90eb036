#pragma once

#include <arrow/status.h>
#include <parquet/properties.h>

namespace kyr::parquet {

/// Whether Parquet can encode with these properties. It divides by the batch size, and with a
/// negative one it writes nothing and reports no error.
inline ::arrow::Status checkBatchSize(const ::parquet::WriterProperties& properties) {
  if (properties.write_batch_size() > 0) return ::arrow::Status::OK();
  return ::arrow::Status::Invalid("the option BatchSize is ", properties.write_batch_size(),
                                  ", so no rows can be written: set it to 1 or more");
}

}  // namespace kyr::parquet
