#pragma once

#include <stdexcept>

namespace kyr::python {

/// \brief An object was used after it was closed. Python sees a ValueError, as with its own files.
class ClosedError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace kyr::python
