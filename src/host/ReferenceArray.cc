#include "host/ReferenceArray.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace kyr::host {

namespace {

template <typename T>
double elementAs(const std::byte* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof(T));
  return static_cast<double>(value);
}

// What belongs to a NumericClass.
struct ClassTraits {
  const char* name;
  std::size_t width;
  double (*read)(const std::byte*);
};

template <typename T>
constexpr ClassTraits traitsOf(const char* name) {
  return {name, sizeof(T), elementAs<T>};
}

constexpr std::array<ClassTraits, 10> kClasses{
    traitsOf<double>("double"),      traitsOf<float>("single"),
    traitsOf<std::int8_t>("int8"),   traitsOf<std::uint8_t>("uint8"),
    traitsOf<std::int16_t>("int16"), traitsOf<std::uint16_t>("uint16"),
    traitsOf<std::int32_t>("int32"), traitsOf<std::uint32_t>("uint32"),
    traitsOf<std::int64_t>("int64"), traitsOf<std::uint64_t>("uint64"),
};

const ClassTraits& traitsOf(NumericClass numericClass) {
  return kClasses.at(static_cast<std::size_t>(numericClass));
}

[[noreturn]] void refuse(const ReferenceArray& array, const std::string& wanted) {
  throw std::invalid_argument("an array of class " + array.className() + " is no " + wanted);
}

}  // namespace

std::size_t widthOf(NumericClass numericClass) { return traitsOf(numericClass).width; }

ReferenceArray::ReferenceArray(HostAllocator& allocator, std::size_t count, Elements elements)
    : allocator_(allocator), count_(count), elements_(std::move(elements)) {}

HostValue ReferenceArray::make(HostAllocator& allocator, std::size_t count, Elements elements) {
  void* memory = allocator.allocateZeroed(sizeof(ReferenceArray));
  if (memory == nullptr) allocator.throwOutOfMemory(sizeof(ReferenceArray));
  return HostValue(new (memory) ReferenceArray(allocator, count, std::move(elements)));
}

void ReferenceArray::destroy() noexcept {
  HostAllocator& allocator = allocator_;
  this->~ReferenceArray();
  allocator.release(this);
}

bool ReferenceArray::isCharVector() const {
  return std::holds_alternative<CharElements>(elements_);
}

bool ReferenceArray::isLogicalScalar() const {
  return isScalar() && std::holds_alternative<LogicalElements>(elements_);
}

bool ReferenceArray::isLogicalScalarTrue() const {
  return isLogicalScalar() && std::get<LogicalElements>(elements_).values[0] != 0;
}

double ReferenceArray::scalar() const {
  if (!isScalar()) refuse(*this, "scalar");
  if (const auto* numeric = std::get_if<NumericElements>(&elements_)) {
    return traitsOf(numeric->numericClass).read(numeric->bytes.data());
  }
  if (const auto* logical = std::get_if<LogicalElements>(&elements_)) return logical->values[0];
  if (const auto* chars = std::get_if<CharElements>(&elements_)) return chars->text[0];
  refuse(*this, "number");
}

std::u16string ReferenceArray::text() const {
  if (!isCharVector()) refuse(*this, "text");
  return std::get<CharElements>(elements_).text;
}

const HostArray* ReferenceArray::field(std::size_t element, const std::string& name) const {
  const auto* structs = std::get_if<StructElements>(&elements_);
  if (structs == nullptr || element >= structs->elements.size()) return nullptr;
  const auto found = structs->elements[element].find(name);
  return found == structs->elements[element].end() ? nullptr : found->second.get();
}

void ReferenceArray::setField(std::size_t element, const std::string& name, HostValue value) {
  auto* structs = std::get_if<StructElements>(&elements_);
  if (structs == nullptr) refuse(*this, "struct");
  const auto& names = structs->fieldNames;
  if (element >= structs->elements.size()) {
    throw std::invalid_argument("the struct has no element " + std::to_string(element));
  }
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    throw std::invalid_argument("the struct has no field \"" + name + "\"");
  }
  structs->elements[element][name] = std::move(value);
}

void* ReferenceArray::numbers() {
  auto* numeric = std::get_if<NumericElements>(&elements_);
  if (numeric == nullptr) refuse(*this, "numeric array");
  return numeric->bytes.data();
}

std::string ReferenceArray::className() const {
  if (const auto* numeric = std::get_if<NumericElements>(&elements_)) {
    return traitsOf(numeric->numericClass).name;
  }
  if (std::holds_alternative<LogicalElements>(elements_)) return "logical";
  return isCharVector() ? "char" : "struct";
}

}  // namespace kyr::host
