#pragma once

#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "kyr/host/HostAllocator.h"

namespace kyr::test {

/// The exception of a host without memory.
class HostOutOfMemory : public std::runtime_error {
 public:
  HostOutOfMemory() : std::runtime_error("host: out of memory") {}
};

/// Counts the allocations, and fails after `left` of them.
class FlakyAllocator final : public host::HostAllocator {
 public:
  void* allocateZeroed(std::size_t size) override {
    if (left == 0) return nullptr;
    --left;
    ++live;
    ++total;
    return std::calloc(1, size);
  }
  void release(void* memory) noexcept override {
    if (memory == nullptr) return;
    --live;
    std::free(memory);
  }
  [[noreturn]] void throwOutOfMemory(std::size_t /*size*/) override { throw HostOutOfMemory(); }

  std::size_t left = static_cast<std::size_t>(-1);
  int live = 0;
  int total = 0;
};

}  // namespace kyr::test
