#include "schema/TypeNames.h"

#include <fmt/format.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace kyr {

namespace {

// Stored in recordings: never rename.
constexpr std::array<std::pair<KYRSignalDataType, const char*>, 15> kDataTypeNames{{
    {Double, "Double"},
    {Single, "Single"},
    {Int8, "Int8"},
    {UInt8, "UInt8"},
    {Int16, "Int16"},
    {UInt16, "UInt16"},
    {Int32, "Int32"},
    {UInt32, "UInt32"},
    {Boolean, "Boolean"},
    {Int64, "Int64"},
    {UInt64, "UInt64"},
    {UInt64Alt, "UInt64Alt"},
    {UInt32Alt, "UInt32Alt"},
    {ByteString, "ByteString"},
    {Binary, "Binary"},
}};
constexpr std::array<std::pair<KYRSignalCategory, const char*>, 5> kCategoryNames{{
    {Scalar, "Scalar"},
    {FixedDim, "FixedDim"},
    {VarDim, "VarDim"},
    {Bus, "Bus"},
    {VarDimBus, "VarDimBus"},
}};

template <typename Names, typename Value>
std::string nameOf(const Names& names, Value value) {
  for (const auto& [known, name] : names) {
    if (known == value) return name;
  }
  return {};
}

template <typename Names>
auto valueOf(const Names& names, const std::string& name) {
  for (const auto& [value, known] : names) {
    if (name == known) return value;
  }
  throw std::runtime_error(fmt::format("\"{}\" is not known", name));
}

}  // namespace

std::string dataTypeName(KYRSignalDataType type) { return nameOf(kDataTypeNames, type); }

std::string categoryName(KYRSignalCategory category) { return nameOf(kCategoryNames, category); }

KYRSignalDataType dataTypeCalled(const std::string& name) { return valueOf(kDataTypeNames, name); }

KYRSignalCategory categoryCalled(const std::string& name) { return valueOf(kCategoryNames, name); }

}  // namespace kyr
