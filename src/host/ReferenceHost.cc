#include "kyr/host/ReferenceHost.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <new>
#include <stdexcept>
#include <utility>
#include <variant>

#include "host/ReferenceArray.h"

namespace kyr::host {

void* ReferenceAllocator::allocateZeroed(std::size_t size) {
  void* memory = std::calloc(1, size);
  if (memory != nullptr) ++live_;
  return memory;
}

void ReferenceAllocator::release(void* memory) noexcept {
  if (memory == nullptr) return;
  --live_;
  std::free(memory);
}

void ReferenceAllocator::throwOutOfMemory(std::size_t /*size*/) { throw std::bad_alloc(); }

// Keeps the description that a library added until the namespace is first opened.
class ReferenceHost::Namespace final : public HostNamespace {
 public:
  Namespace() = default;
  explicit Namespace(std::unique_ptr<HostNamespaceInfo> info) : info_(std::move(info)) {}

  void addNamespace(std::unique_ptr<HostNamespaceInfo> info) override {
    const std::string name = info->getName();
    children_.insert_or_assign(name, std::make_unique<Namespace>(std::move(info)));
  }

  // The two numbers mean nothing to this host.
  void addMethod(std::unique_ptr<HostMethodInfo> method, int /*first*/, int /*second*/) override {
    const char* name = method->getName();
    if (name == nullptr) throw std::invalid_argument("a method without a name cannot be added");
    methods_.insert_or_assign(name, std::move(method));
  }

  // A description that throws leaves nothing behind. The next open() calls it again.
  void open() {
    if (!info_) return;
    Namespace populated;
    info_->populate(populated);
    info_.reset();
    children_.merge(populated.children_);
    methods_.merge(populated.methods_);
  }

  Namespace* child(const std::string& name) {
    open();
    const auto found = children_.find(name);
    return found == children_.end() ? nullptr : found->second.get();
  }

  Namespace& define(const std::string& name) {
    if (Namespace* existing = child(name)) return *existing;
    return *(children_[name] = std::make_unique<Namespace>());
  }

  const std::map<std::string, std::unique_ptr<HostMethodInfo>>& methods() {
    open();
    return methods_;
  }

 private:
  std::unique_ptr<HostNamespaceInfo> info_;
  std::map<std::string, std::unique_ptr<Namespace>> children_;
  std::map<std::string, std::unique_ptr<HostMethodInfo>> methods_;
};

class ReferenceHost::Impl {
 public:
  explicit Impl(HostAllocator* given) : allocator(given != nullptr ? given : &ownAllocator) {}

  Namespace* find(const std::string& dottedName) {
    return walk(dottedName, [](Namespace& in, const std::string& name) { return in.child(name); });
  }

  Namespace& define(const std::string& dottedName) {
    return *walk(dottedName,
                 [](Namespace& in, const std::string& name) { return &in.define(name); });
  }

  Namespace& existing(const std::string& dottedName) {
    if (Namespace* found = find(dottedName)) return *found;
    throw std::invalid_argument("there is no namespace \"" + dottedName + "\"");
  }

  ReferenceAllocator ownAllocator;
  HostAllocator* allocator;
  Namespace root;

 private:
  // Goes down from the root, one part of the name at a time, until \p step finds nothing.
  template <typename Step>
  Namespace* walk(const std::string& dottedName, Step&& step) {
    Namespace* at = &root;
    std::size_t begin = 0;
    while (at != nullptr && begin <= dottedName.size()) {
      const std::size_t end = std::min(dottedName.find('.', begin), dottedName.size());
      at = step(*at, dottedName.substr(begin, end - begin));
      begin = end + 1;
    }
    return at;
  }
};

ReferenceHost::ReferenceHost() : impl_(std::make_unique<Impl>(nullptr)) {}
ReferenceHost::ReferenceHost(HostAllocator& allocator)
    : impl_(std::make_unique<Impl>(&allocator)) {}
ReferenceHost::~ReferenceHost() = default;

HostNamespace& ReferenceHost::defineNamespace(const std::string& dottedName) {
  return impl_->define(dottedName);
}

HostNamespace* ReferenceHost::findNamespace(const std::string& dottedName) {
  return impl_->find(dottedName);
}

void ReferenceHost::addNamespace(std::unique_ptr<HostNamespaceInfo> info) {
  impl_->root.addNamespace(std::move(info));
}

HostAllocator& ReferenceHost::allocator() { return *impl_->allocator; }

std::vector<std::string> ReferenceHost::listMethods(const std::string& namespaceName) {
  std::vector<std::string> names;
  for (const auto& [name, method] : impl_->existing(namespaceName).methods()) {
    if (method->isVisible()) names.push_back(name);
  }
  return names;
}

const HostMethodInfo* ReferenceHost::findMethod(const std::string& fullName) {
  const std::size_t dot = fullName.rfind('.');
  if (dot == std::string::npos) return nullptr;
  Namespace* in = impl_->find(fullName.substr(0, dot));
  if (in == nullptr) return nullptr;
  const auto found = in->methods().find(fullName.substr(dot + 1));
  return found == in->methods().end() ? nullptr : found->second.get();
}

std::vector<HostValue> ReferenceHost::invoke(const std::string& fullName,
                                             const std::vector<HostValue>& inputs) {
  const HostMethodInfo* method = findMethod(fullName);
  if (method == nullptr) {
    throw std::invalid_argument("there is no method \"" + fullName + "\"");
  }
  std::vector<HostValue> outputs(std::max<std::size_t>(1, method->descriptor().outputTypes.size()));
  int outputCount = static_cast<int>(outputs.size());
  method->invoke(this, outputCount, outputs.data(), static_cast<int>(inputs.size()), inputs.data());
  outputs.resize(static_cast<std::size_t>(outputCount));
  return outputs;
}

HostValue ReferenceHost::invoke(const std::string& fullName, HostValue input) {
  std::vector<HostValue> inputs;
  if (input) inputs.push_back(std::move(input));
  std::vector<HostValue> outputs = invoke(fullName, inputs);
  return outputs.empty() ? HostValue() : std::move(outputs.front());
}

HostValue ReferenceHost::createStruct(std::size_t rows, std::size_t columns,
                                      const std::vector<std::string>& fieldNames) const {
  StructElements structs{fieldNames, {}};
  structs.elements.resize(rows * columns);
  return ReferenceArray::make(*impl_->allocator, rows * columns, std::move(structs));
}

HostValue ReferenceHost::createString(const std::u16string& text) const {
  return ReferenceArray::make(*impl_->allocator, text.size(), CharElements{text});
}

HostValue ReferenceHost::createLogicalScalar(bool value) const {
  return ReferenceArray::make(*impl_->allocator, 1, LogicalElements{{value ? '\1' : '\0'}});
}

HostValue ReferenceHost::createLogical(std::size_t rows, std::size_t columns) const {
  return ReferenceArray::make(*impl_->allocator, rows * columns,
                              LogicalElements{std::vector<char>(rows * columns)});
}

HostValue ReferenceHost::createNumeric(std::size_t rows, std::size_t columns,
                                       NumericClass numericClass) const {
  NumericElements numbers{numericClass,
                          std::vector<std::byte>(rows * columns * widthOf(numericClass))};
  return ReferenceArray::make(*impl_->allocator, rows * columns, std::move(numbers));
}

HostValue ReferenceHost::createNumber(double value) const {
  HostValue number = createNumeric(1, 1, NumericClass::Double);
  *static_cast<double*>(number->numbers()) = value;
  return number;
}

std::vector<std::string> ReferenceHost::fieldNames(const HostArray& array) {
  const auto& elements = static_cast<const ReferenceArray&>(array).elements();
  const auto* structs = std::get_if<StructElements>(&elements);
  return structs != nullptr ? structs->fieldNames : std::vector<std::string>();
}

std::string ReferenceHost::className(const HostArray& array) {
  return static_cast<const ReferenceArray&>(array).className();
}

}  // namespace kyr::host
