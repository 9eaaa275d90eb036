#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kyr/platform/export.h"

namespace kyr {

/// \brief Random bytes from the kernel's cryptographic source, and base64.
class KYR_PARQUET_EXPORT CryptoService {
 public:
  /// \throws std::system_error if the kernel gives none
  static std::vector<unsigned char> randomBytes(std::size_t count);

  /// \brief Standard base64 (RFC 4648, section 4) of \p bytes, with padding.
  static std::u16string base64(const std::vector<unsigned char>& bytes);
};

}  // namespace kyr
