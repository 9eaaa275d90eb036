#include "schema/ArrayMemory.h"

#include "schema/ElementTypes.h"

namespace kyr {

std::size_t valueWidth(const ::arrow::DataType& type) {
  return static_cast<std::size_t>(type.bit_width()) / 8;
}

const std::uint8_t* firstValue(const ::arrow::Array& array) {
  const auto width = static_cast<std::int64_t>(valueWidth(*array.type()));
  return array.data()->GetValues<std::uint8_t>(1, array.offset() * width);
}

std::shared_ptr<::arrow::Array> spannedValues(const ::arrow::ListArray& list) {
  return list.values()->Slice(list.length() == 0 ? 0 : list.value_offset(0),
                              static_cast<std::int64_t>(spannedLength(list)));
}

namespace arrow {

std::shared_ptr<::arrow::Array> makeArrayZeroCopy(const std::shared_ptr<::arrow::Buffer>& buffer,
                                                  const std::shared_ptr<::arrow::DataType>& type) {
  if (!parquet::isNumber(*type)) return nullptr;
  const std::int64_t length = buffer->size() / static_cast<std::int64_t>(valueWidth(*type));
  return ::arrow::MakeArray(::arrow::ArrayData::Make(type, length, {nullptr, buffer}, 0));
}

}  // namespace arrow
}  // namespace kyr
