#pragma once

#include <string>

#include "kyr/platform/export.h"

namespace kyr {

/// \brief Process-wide named switches. A flag that nobody set is off.
///
/// Hosts set flags; the library only reads them. Not synchronised: set flags from the thread that
/// uses the library. The library reads two flags, both each time a pool's directory is set:
///
/// - "fKYRUseParquetRowGroup": a `SignalPool` stores signals row group by row group, as
///   `StreamableSignal`, instead of as whole files.
/// - "fKYRUseSafeStorage": a `SignalPool` that was made without `SafeStorage` has one with its
///   default values.
class KYR_PARQUET_EXPORT FeatureFlag {
 public:
  static bool isEnabled(const std::string& name);
  static void set(const std::string& name, bool enabled);
};

}  // namespace kyr
