#pragma once

#include <exception>

namespace kyr::fuzz {

/// Runs an operation that may refuse its input by an exception.
template <typename Operation>
void mayRefuse(Operation&& operation) {
  try {
    operation();
  } catch (const std::exception&) {
    return;
  }
}

}  // namespace kyr::fuzz
