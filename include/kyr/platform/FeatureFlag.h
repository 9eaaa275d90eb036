#pragma once

#include <string>

#include "kyr/platform/export.h"

namespace kyr {

/// \brief Process-wide named switches. A flag that nobody set is off.
///
/// Hosts set flags; the library only reads them. Not synchronised: set flags from the thread that
/// uses the library. The flags that the library reads:
///
/// - "fKYRUseParquetRowGroup": a `SignalPool` stores signals row group by row group (streaming)
///   instead of as whole files; read each time a pool's directory is set.
class KYR_PARQUET_EXPORT FeatureFlag {
 public:
  static bool isEnabled(const std::string& name);
  static void set(const std::string& name, bool enabled);
};

}  // namespace kyr
