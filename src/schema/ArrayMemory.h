#pragma once

#include <arrow/array.h>
#include <arrow/buffer.h>
#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

/// The memory behind Arrow arrays: wrapped without copying, and taken out again.
namespace kyr {

/// A buffer over \p bytes bytes at \p data, which must outlive it.
inline std::shared_ptr<::arrow::Buffer> borrowBuffer(const void* data, std::size_t bytes) {
  // Arrow wants an address for no bytes, too, and an empty vector has none.
  static constexpr std::uint8_t kNothing = 0;
  if (data == nullptr) data = &kNothing;
  return std::make_shared<::arrow::Buffer>(static_cast<const std::uint8_t*>(data),
                                           static_cast<std::int64_t>(bytes));
}

/// Bytes of one value of a fixed-width type.
std::size_t valueWidth(const ::arrow::DataType& type);

/// The first value of an array of a fixed-width type. The array's offset is counted in.
const std::uint8_t* firstValue(const ::arrow::Array& array);

/// Append \p size bytes, as elements of T.
template <typename T>
void appendBytes(std::vector<T>& out, const void* bytes, std::size_t size) {
  if (size == 0) return;
  if constexpr (sizeof(T) == 1) {
    const auto* first = static_cast<const T*>(bytes);
    out.insert(out.end(), first, first + size);  // resize() would fill with zeros first
  } else {
    const std::size_t before = out.size();
    out.resize(before + size / sizeof(T));
    std::memcpy(out.data() + before, bytes, size);
  }
}

/// The number of values that the rows of a list or binary array span. An array without rows may
/// have no offsets at all.
template <typename ListLike>
std::size_t spannedLength(const ListLike& array) {
  if (array.length() == 0) return 0;
  return static_cast<std::size_t>(array.value_offset(array.length()) - array.value_offset(0));
}

/// The values that the rows of a list array span. Its values before and behind them are left out.
std::shared_ptr<::arrow::Array> spannedValues(const ::arrow::ListArray& list);

namespace arrow {

/// A numeric array over the whole buffer, which it shares; a trailing partial value is ignored.
/// \return empty for other types than the number types; callers test for that
std::shared_ptr<::arrow::Array> makeArrayZeroCopy(const std::shared_ptr<::arrow::Buffer>& buffer,
                                                  const std::shared_ptr<::arrow::DataType>& type);

}  // namespace arrow
}  // namespace kyr
