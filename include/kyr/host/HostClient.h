#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kyr/host/HostArray.h"

namespace kyr::host {

/// \brief The caller of a method. The method makes its results with it.
///
/// A host implements it. Every member throws the host's own exception when there is no memory.
class HostClient {
 public:
  virtual ~HostClient() = default;

  /// \brief A struct array whose elements have the fields \p fieldNames, in that order, all absent.
  virtual HostValue createStruct(std::size_t rows, std::size_t columns,
                                 const std::vector<std::string>& fieldNames) const = 0;

  /// \brief A char vector holding \p text.
  virtual HostValue createString(const std::u16string& text) const = 0;

  virtual HostValue createLogicalScalar(bool value) const = 0;

  /// \brief A numeric array of zeros; see HostArray::numbers().
  virtual HostValue createNumeric(std::size_t rows, std::size_t columns,
                                  NumericClass numericClass) const = 0;
};

}  // namespace kyr::host
