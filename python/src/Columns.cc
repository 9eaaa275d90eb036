#include <arrow/api.h>
#include <arrow/c/bridge.h>
#include <arrow/util/bit_util.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "Capsules.h"
#include "Define.h"

namespace kyr::python {

namespace {

using Array = nb::ndarray<nb::ro, nb::c_contig, nb::device::cpu>;

template <typename T>
T check(::arrow::Result<T> result) {
  if (!result.ok()) throw std::runtime_error(result.status().ToString());
  return std::move(result).ValueUnsafe();
}

// Memory of an array, which lives as long as the buffer. nanobind takes the interpreter's lock when
// the last reference goes, in whatever thread that is.
class ArrayBuffer : public ::arrow::Buffer {
 public:
  explicit ArrayBuffer(const Array& array)
      : ::arrow::Buffer(static_cast<const std::uint8_t*>(array.data()),
                        static_cast<std::int64_t>(array.nbytes())),
        array_(array) {}

 private:
  Array array_;
};

std::shared_ptr<::arrow::DataType> typeOf(const nb::dlpack::dtype& type) {
  using Code = nb::dlpack::dtype_code;
  const bool isSigned = type.code == static_cast<std::uint8_t>(Code::Int);
  if (type.code == static_cast<std::uint8_t>(Code::Float)) {
    return type.bits == 32 ? ::arrow::float32() : ::arrow::float64();
  }
  switch (type.bits) {
    case 8:
      return isSigned ? ::arrow::int8() : ::arrow::uint8();
    case 16:
      return isSigned ? ::arrow::int16() : ::arrow::uint16();
    case 32:
      return isSigned ? ::arrow::int32() : ::arrow::uint32();
    default:
      return isSigned ? ::arrow::int64() : ::arrow::uint64();
  }
}

std::shared_ptr<::arrow::Buffer> bitsOf(const Array& array) {
  const auto count = static_cast<std::int64_t>(array.size());
  auto bits = check(::arrow::AllocateEmptyBitmap(count));
  const auto* const bytes = static_cast<const std::uint8_t*>(array.data());
  for (std::int64_t i = 0; i < count; ++i) {
    ::arrow::bit_util::SetBitTo(bits->mutable_data(), i, bytes[i] != 0);
  }
  return bits;
}

using Validity = std::shared_ptr<::arrow::Buffer>;

std::shared_ptr<::arrow::ArrayData> elementsOf(const Array& array, Validity validity) {
  const auto count = static_cast<std::int64_t>(array.size());
  if (array.dtype().code == static_cast<std::uint8_t>(nb::dlpack::dtype_code::Bool)) {
    return ::arrow::ArrayData::Make(::arrow::boolean(), count,
                                    {std::move(validity), bitsOf(array)});
  }
  return ::arrow::ArrayData::Make(typeOf(array.dtype()), count,
                                  {std::move(validity), std::make_shared<ArrayBuffer>(array)});
}

// A column: elements; the elements of each sample, or offsets of the samples, if these are lists;
// which samples there are, if some are missing; and whether the elements are bytes of blobs.
struct Column {
  std::string name;
  std::string unit;
  Array elements;
  nb::object size;
  nb::object valid;
  bool isBytes;

  std::shared_ptr<::arrow::Array> array() const {
    Validity validity;
    if (!valid.is_none()) validity = bitsOf(nb::cast<Array>(valid));
    if (size.is_none()) return ::arrow::MakeArray(elementsOf(elements, validity));
    if (nb::isinstance<nb::int_>(size)) return lists(nb::cast<std::int32_t>(size), validity);
    const auto offsets = nb::cast<Array>(size);
    const auto rows = static_cast<std::int64_t>(offsets.size()) - 1;
    const auto buffer = std::make_shared<ArrayBuffer>(offsets);
    if (isBytes) {
      return ::arrow::MakeArray(
          ::arrow::ArrayData::Make(::arrow::large_binary(), rows,
                                   {validity, buffer, std::make_shared<ArrayBuffer>(elements)}));
    }
    const auto items = elementsOf(elements, nullptr);
    return ::arrow::MakeArray(::arrow::ArrayData::Make(::arrow::large_list(items->type), rows,
                                                       {validity, buffer}, {items}));
  }

 private:
  std::shared_ptr<::arrow::Array> lists(std::int32_t length, const Validity& validity) const {
    const auto items = elementsOf(elements, nullptr);
    const std::int64_t rows = length == 0 ? 0 : items->length / length;
    return ::arrow::MakeArray(::arrow::ArrayData::Make(
        ::arrow::fixed_size_list(items->type, length), rows, {validity}, {items}));
  }
};

using ColumnParts = std::tuple<std::string, std::string, Array, nb::object, nb::object, bool>;

nb::capsule streamOfColumns(const std::vector<ColumnParts>& parts) {
  ::arrow::FieldVector fields;
  ::arrow::ArrayVector arrays;
  for (const auto& [name, unit, elements, size, valid, isBytes] : parts) {
    arrays.push_back(Column{name, unit, elements, size, valid, isBytes}.array());
    const auto metadata = unit.empty() ? nullptr : ::arrow::key_value_metadata({"unit"}, {unit});
    fields.push_back(::arrow::field(name, arrays.back()->type(), true, metadata));
  }
  const std::int64_t rows = arrays.empty() ? 0 : arrays.front()->length();
  const auto schema = ::arrow::schema(std::move(fields));
  const auto batch = ::arrow::RecordBatch::Make(schema, rows, std::move(arrays));
  auto stream = std::make_unique<ArrowArrayStream>();
  const auto status = ::arrow::ExportRecordBatchReader(
      check(::arrow::RecordBatchReader::Make({batch}, schema)), stream.get());
  if (!status.ok()) throw std::runtime_error(status.ToString());
  return streamCapsule(std::move(stream));
}

}  // namespace

void defineColumns(nb::module_& module) {
  using namespace nb::literals;
  module.def(
      "stream_of_columns", streamOfColumns, "columns"_a,
      "Arrays as a capsule of Arrow's C stream interface. Each column is a tuple: name, unit,\n"
      "elements, elements of each sample (None, a number, or offsets), which samples there\n"
      "are (None for all), whether samples are bytes.");
}

}  // namespace kyr::python
