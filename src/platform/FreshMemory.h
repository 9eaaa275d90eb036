#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kyr::platform {

/// Has the system provide memory that was allocated and not used yet, all of it now. It would do so
/// page by page as they are first written to, which takes longer. Nothing is lost where it cannot.
void provide(void* memory, std::size_t size) noexcept;

/// Does what reserve() does, but never grows by less than the half.
template <typename T>
void reserveMore(std::vector<T>& values, std::size_t count) {
  if (values.capacity() < count) values.reserve(std::max(count, values.capacity() / 2 * 3));
}

/// Does what resize() does, for memory that may not have been used yet.
/// \return the first new element
template <typename T>
T* extend(std::vector<T>& values, std::size_t count) {
  const std::size_t size = values.size();
  if (values.capacity() - size >= count) provide(values.data() + size, count * sizeof(T));
  values.resize(size + count);
  return values.data() + size;
}

}  // namespace kyr::platform
