#include "host/LibraryNamespaces.h"

#include <memory>
#include <utility>

#include "host/HostAllocated.h"
#include "host/ParquetOptionsMethods.h"

namespace kyr::host {

namespace {

template <typename Method>
void addMethod(HostNamespace& target, HostAllocator& allocator) {
  target.addMethod(std::unique_ptr<HostMethodInfo>(new (allocator) Method), 0, 2);
}

void addMethods(HostNamespace& target, HostAllocator& allocator) {
  addMethod<ParquetOptionsSetter>(target, allocator);
  addMethod<ParquetOptionsGetter>(target, allocator);
}

class KYRNamespaceInfo final : public HostNamespaceInfo, public HostAllocated {
 public:
  explicit KYRNamespaceInfo(HostAllocator& allocator) : allocator_(allocator) {}
  const char* getName() const override { return "kyr"; }
  void populate(HostNamespace& self) override { addMethods(self, allocator_); }

 private:
  HostAllocator& allocator_;
};

class TARNWICKNamespaceInfo final : public HostNamespaceInfo, public HostAllocated {
 public:
  explicit TARNWICKNamespaceInfo(HostAllocator& allocator) : allocator_(allocator) {}
  const char* getName() const override { return "Tarnwick"; }
  void populate(HostNamespace& self) override {
    self.addNamespace(
        std::unique_ptr<HostNamespaceInfo>(new (allocator_) KYRNamespaceInfo(allocator_)));
  }

 private:
  HostAllocator& allocator_;
};

}  // namespace

void registerLibrary(HostObjectSystem& host) {
  HostAllocator& allocator = host.allocator();
  HostNamespace* outer = host.findNamespace("Tarnwick");
  if (outer == nullptr) {
    host.addNamespace(
        std::unique_ptr<HostNamespaceInfo>(new (allocator) TARNWICKNamespaceInfo(allocator)));
    return;
  }
  if (HostNamespace* inner = host.findNamespace("Tarnwick.kyr")) {
    addMethods(*inner, allocator);
    return;
  }
  outer->addNamespace(
      std::unique_ptr<HostNamespaceInfo>(new (allocator) KYRNamespaceInfo(allocator)));
}

}  // namespace kyr::host
