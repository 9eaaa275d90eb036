#pragma once

#include <memory>

#include "kyr/parquet/PerfTracer.h"

namespace kyr::parquet {

/// A span of the trace that lasts while rows of a safe pool are written.
inline std::unique_ptr<PerfTracer> traceBatch() {
  return getScopedPerfTracer("SharedStream_write");
}

}  // namespace kyr::parquet
