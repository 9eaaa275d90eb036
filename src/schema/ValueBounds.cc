#include "schema/ValueBounds.h"

#include <arrow/type.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

template <typename T>
using Bounds = std::pair<T, T>;

// Bounds that the first number replaces: the least is above the most.
template <typename T>
constexpr Bounds<T> noBounds() {
  using Limits = std::numeric_limits<T>;
  if constexpr (Limits::has_infinity) return {Limits::infinity(), -Limits::infinity()};
  return {Limits::max(), Limits::lowest()};
}

template <typename T>
void widen(Bounds<T>& bounds, T value) {
  // Comparisons with NaN are false.
  bounds.first = value < bounds.first ? value : bounds.first;
  bounds.second = value > bounds.second ? value : bounds.second;
}

// Two vectors of some bytes at a time, each beside its own least and most, so that no instruction
// waits for the one before. The vectors are variables of their own: an array of them, or a copy of
// the values, would go through memory.
template <typename T, std::size_t kBytes>
[[gnu::always_inline]] inline Bounds<T> vectorBounds(const char* values, std::size_t count) {
  using Vector [[gnu::vector_size(kBytes)]] = T;
  using Stored [[gnu::vector_size(kBytes), gnu::aligned(1), gnu::may_alias]] = T;
  constexpr std::size_t kLanes = kBytes / sizeof(T);
  Bounds<T> bounds = noBounds<T>();
  Vector least = bounds.first - Vector{};
  Vector most = bounds.second - Vector{};
  Vector otherLeast = least;
  Vector otherMost = most;
  for (; count >= 2 * kLanes; count -= 2 * kLanes, values += 2 * kBytes) {
    const Vector some = *reinterpret_cast<const Stored*>(values);
    const Vector others = *reinterpret_cast<const Stored*>(values + kBytes);
    least = some < least ? some : least;
    most = some > most ? some : most;
    otherLeast = others < otherLeast ? others : otherLeast;
    otherMost = others > otherMost ? others : otherMost;
  }
  least = otherLeast < least ? otherLeast : least;
  most = otherMost > most ? otherMost : most;
  for (std::size_t lane = 0; lane < kLanes; ++lane) {
    bounds.first = std::min<T>(bounds.first, least[lane]);
    bounds.second = std::max<T>(bounds.second, most[lane]);
  }
  for (; count > 0; --count, values += sizeof(T)) {
    T value;
    std::memcpy(&value, values, sizeof(T));
    widen(bounds, value);
  }
  return bounds;
}

#ifdef __x86_64__
template <typename T>
[[gnu::target("avx2")]] Bounds<T> boundsWithAvx2(const char* values, std::size_t count) {
  return vectorBounds<T, 32>(values, count);
}
#endif

template <typename T>
Bounds<T> boundsOf(const char* values, std::size_t count) {
#ifdef __x86_64__
  static const bool hasAvx2 = __builtin_cpu_supports("avx2") != 0;
  if (hasAvx2) return boundsWithAvx2<T>(values, count);
#endif
  return vectorBounds<T, 16>(values, count);
}

}  // namespace

ValueBounds::ValueBounds(const SampleSchema& schema)
    : type_(schema.kind != ColumnKind::blob && schema.elementType && isNumber(*schema.elementType)
                ? schema.elementType->id()
                : ::arrow::Type::NA) {}

void ValueBounds::add(const RowSlice& rows) {
  if (type_ == ::arrow::Type::NA || rows.bytes == 0) return;
  visitNumber(type_, [&](auto number) {
    using T = typename decltype(number)::Value;
    const std::size_t count = rows.bytes / sizeof(T);
    const auto [least, most] = boundsOf<T>(rows.elements, count);
    if (least > most) return;  // there is no number
    // Adding a zero takes the sign of one away.
    const double lower = static_cast<double>(least) + 0.0;
    const double upper = static_cast<double>(most) + 0.0;
    least_ = least_ ? std::min(*least_, lower) : lower;
    most_ = most_ ? std::max(*most_, upper) : upper;
  });
}

}  // namespace kyr::parquet
