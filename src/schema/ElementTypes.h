#pragma once

#include <arrow/type.h>
#include <arrow/type_traits.h>

#include <memory>
#include <optional>

#include "kyr/parquet/SignalTypes.h"

/// The element types of samples: in C++, in Arrow and as a signal names them.
namespace kyr::parquet {

/// Applies \p X to the number types: the C++ type of typed columns, the Arrow type, and the signal
/// type that is stored as it. `Boolean`, `Null` and the two `Alt` types are stored as others are.
#define KYR_FOR_EACH_NUMBER_TYPE(X)              \
  X(double, ::arrow::DoubleType, Double)         \
  X(float, ::arrow::FloatType, Single)           \
  X(char, ::arrow::Int8Type, Int8)               \
  X(unsigned char, ::arrow::UInt8Type, UInt8)    \
  X(short, ::arrow::Int16Type, Int16)            \
  X(unsigned short, ::arrow::UInt16Type, UInt16) \
  X(int, ::arrow::Int32Type, Int32)              \
  X(unsigned int, ::arrow::UInt32Type, UInt32)   \
  X(long long, ::arrow::Int64Type, Int64)        \
  X(unsigned long long, ::arrow::UInt64Type, UInt64)

/// A number type, by the C++ type of typed columns.
template <typename T>
struct NumberType;

#define KYR_DEFINE_NUMBER_TYPE(T, A, S)                \
  template <>                                          \
  struct NumberType<T> {                               \
    using type = T;                                    \
    using ArrowType = A;                               \
    /* Like T, but signed if Arrow's type is. */       \
    using Value = A::c_type;                           \
    static constexpr KYRSignalDataType signalType = S; \
    static_assert(sizeof(T) == sizeof(Value));         \
  };
KYR_FOR_EACH_NUMBER_TYPE(KYR_DEFINE_NUMBER_TYPE)
#undef KYR_DEFINE_NUMBER_TYPE

template <typename T>
std::shared_ptr<::arrow::DataType> arrowTypeOf() {
  return ::arrow::TypeTraits<typename NumberType<T>::ArrowType>::type_singleton();
}

/// Whether values of an Arrow type are of one of the number types.
bool isNumber(::arrow::Type::type id);
inline bool isNumber(const ::arrow::DataType& type) { return isNumber(type.id()); }

[[noreturn]] void failNoNumber(::arrow::Type::type id);

/// Calls \p visit with the NumberType of an Arrow type.
/// \throws std::invalid_argument if !isNumber(id)
template <typename Visit>
auto visitNumber(::arrow::Type::type id, Visit&& visit) {
  switch (id) {
#define KYR_VISIT_NUMBER_TYPE(T, A, S) \
  case A::type_id:                     \
    return visit(NumberType<T>());
    KYR_FOR_EACH_NUMBER_TYPE(KYR_VISIT_NUMBER_TYPE)
#undef KYR_VISIT_NUMBER_TYPE
    default:
      failNoNumber(id);
  }
}

/// The Arrow type of one element of a signal type; NA for a value outside the enumeration.
::arrow::Type::type elementTypeId(KYRSignalDataType type);
/// Empty for a value outside the enumeration.
std::shared_ptr<::arrow::DataType> elementArrowType(KYRSignalDataType type);

/// The signal type that is stored as a number type or as binary; none for other Arrow types.
std::optional<KYRSignalDataType> signalTypeOf(::arrow::Type::type id);

}  // namespace kyr::parquet
