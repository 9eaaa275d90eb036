#pragma once

#include <memory>
#include <string>

#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief A span of the process's trace service that lasts as long as the object.
///
/// All spans of the library belong to the trace group "ParquetSerializationPerfTracer".
class KYR_PARQUET_EXPORT PerfTracer {
 public:
  /// \brief Log the beginning of the span \p name in \p group.
  PerfTracer(const char* name, int group);

  /// \brief Log the span's end, also if tracing was switched off meanwhile. An empty name logs
  /// nothing. An exception of the trace service ends the process.
  ~PerfTracer();

  PerfTracer(const PerfTracer&) = delete;
  PerfTracer& operator=(const PerfTracer&) = delete;

 private:
  std::string name;
};

/// \brief A span from here until the result is reset; empty when tracing is off.
KYR_PARQUET_EXPORT std::unique_ptr<PerfTracer> getScopedPerfTracer(const char* name);

/// \brief Begin or end a span that is not tied to a scope; the caller pairs the two.
KYR_PARQUET_EXPORT void startPerfTracer(const char* name);
KYR_PARQUET_EXPORT void stopPerfTracer(const char* name);

}  // namespace kyr::parquet
