#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "kyr/host/HostAllocator.h"
#include "kyr/host/HostArray.h"

namespace kyr::host {

struct CharElements {
  std::u16string text;
};

struct LogicalElements {
  std::vector<char> values;
};

struct NumericElements {
  NumericClass numericClass;
  std::vector<std::byte> bytes;
};

struct StructElements {
  std::vector<std::string> fieldNames;
  std::vector<std::unordered_map<std::string, HostValue>> elements;
};

/// The arrays of the reference host, in memory of its allocator.
class ReferenceArray final : public HostArray {
 public:
  using Elements = std::variant<CharElements, LogicalElements, NumericElements, StructElements>;

  static HostValue make(HostAllocator& allocator, std::size_t count, Elements elements);

  bool isEmpty() const override { return count_ == 0; }
  bool isScalar() const override { return count_ == 1; }
  bool isCharVector() const override;
  bool isLogicalScalar() const override;
  bool isLogicalScalarTrue() const override;
  double scalar() const override;
  std::u16string text() const override;
  const HostArray* field(std::size_t element, const std::string& name) const override;
  void setField(std::size_t element, const std::string& name, HostValue value) override;
  void* numbers() override;

  std::string className() const;
  const Elements& elements() const { return elements_; }

 private:
  ReferenceArray(HostAllocator& allocator, std::size_t count, Elements elements);
  ~ReferenceArray() override = default;
  void destroy() noexcept override;

  HostAllocator& allocator_;
  std::size_t count_;
  Elements elements_;
};

/// Bytes of one element.
std::size_t widthOf(NumericClass numericClass);

}  // namespace kyr::host
