#include "host/HostAllocated.h"

#include <new>

namespace kyr::host {

namespace {

// Lies in memory before each object.
struct alignas(std::max_align_t) Origin {
  HostAllocator* allocator;
};

}  // namespace

void* HostAllocated::operator new(std::size_t size, HostAllocator& allocator) {
  void* memory = allocator.allocateZeroed(sizeof(Origin) + size);
  if (memory == nullptr) allocator.throwOutOfMemory(sizeof(Origin) + size);
  return new (memory) Origin{&allocator} + 1;
}

void HostAllocated::operator delete(void* object) noexcept {
  if (object == nullptr) return;
  auto* origin = static_cast<Origin*>(object) - 1;
  origin->allocator->release(origin);
}

void HostAllocated::operator delete(void* object, HostAllocator& /*allocator*/) noexcept {
  HostAllocated::operator delete(object);
}

}  // namespace kyr::host
