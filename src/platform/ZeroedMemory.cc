#include "platform/ZeroedMemory.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kyr::platform {

namespace {

constexpr std::size_t kCacheLine = 64;

std::size_t roundUp(std::size_t size, std::size_t unit) { return (size + unit - 1) / unit * unit; }

// Whole huge pages. mmap() places them anywhere, so one more is asked for and the ends go back.
char* mapHugePages(std::size_t size) {
  void* const place =
      mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) throw std::bad_alloc();
  char* const begin = static_cast<char*>(place);
  const std::size_t before = -reinterpret_cast<std::uintptr_t>(begin) % kHugePage;
  if (before > 0) munmap(begin, before);
  munmap(begin + before + size, kHugePage - before);
#ifdef MADV_HUGEPAGE
  madvise(begin + before, size, MADV_HUGEPAGE);  // without them, it is only slower
#endif
  return begin + before;
}

}  // namespace

ZeroedMemory::ZeroedMemory(std::size_t size) : size_(size) {
  if (size >= kHugePage) {
    data_ = mapHugePages(roundUp(size, kHugePage));
  } else if (size > 0) {
    data_ = static_cast<char*>(std::aligned_alloc(kCacheLine, roundUp(size, kCacheLine)));
    if (!data_) throw std::bad_alloc();
    std::memset(data_, 0, size);
  }
}

ZeroedMemory::ZeroedMemory(const ZeroedMemory& other) : ZeroedMemory(other.size_) {
  if (size_ > 0) std::memcpy(data_, other.data_, size_);
}

ZeroedMemory::~ZeroedMemory() {
  if (size_ >= kHugePage) {
    munmap(data_, roundUp(size_, kHugePage));
  } else {
    std::free(data_);
  }
}

}  // namespace kyr::platform
