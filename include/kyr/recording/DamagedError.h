#pragma once

#include <stdexcept>

#include "kyr/platform/export.h"

namespace kyr::recording {

/// \brief A file of a recording is missing, or is not what the recording says of it.
///
/// The text names the file, what is wrong with it, the bytes if some are damaged, and the rows that
/// cannot be had. All other rows can.
class KYR_PARQUET_EXPORT DamagedError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kyr::recording
