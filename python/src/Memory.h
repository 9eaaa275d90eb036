#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kyr::python {

namespace nb = nanobind;

/// \brief Bytes that numpy may read and not write, and that nobody else has.
using Bytes = nb::ndarray<nb::numpy, const std::uint8_t, nb::ndim<1>, nb::c_contig>;
using Integers = nb::ndarray<nb::numpy, const std::int64_t, nb::ndim<1>, nb::c_contig>;

/// \brief Memory for samples, not initialised, which becomes an array once it is filled.
class Memory {
 public:
  explicit Memory(std::size_t size);

  char* data() { return data_.get(); }
  std::size_t size() const { return size_; }

  /// \brief Hands the memory over to an array of its first \p size bytes.
  Bytes release(std::size_t size) &&;

 private:
  struct Free {
    void operator()(char* data) const;
  };
  std::unique_ptr<char, Free> data_;
  std::size_t size_;
};

/// \brief Hands a vector over to an array, without a copy.
template <typename T>
nb::ndarray<nb::numpy, const T, nb::ndim<1>, nb::c_contig> arrayOf(std::vector<T> values) {
  auto* const owned = new std::vector<T>(std::move(values));
  const nb::capsule owner(
      owned, [](void* vector) noexcept { delete static_cast<std::vector<T>*>(vector); });
  return {owned->data(), {owned->size()}, owner};
}

}  // namespace kyr::python
