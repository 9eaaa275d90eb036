#include "Memory.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>
#include <utility>

namespace kyr::python {

namespace {

constexpr std::size_t kAlignment = 64;
constexpr std::size_t kPage = 4096;
constexpr std::size_t kHugePage = std::size_t{2} << 20;
// Larger blocks usually come fresh from the system.
constexpr std::size_t kFresh = std::size_t{128} << 10;

}  // namespace

void Memory::Free::operator()(char* data) const { std::free(data); }

Memory::Memory(std::size_t size) : size_(size) {
  const std::size_t alignment = size < kFresh ? kAlignment : size < kHugePage ? kPage : kHugePage;
  if (size > SIZE_MAX - alignment) throw std::bad_alloc();
  const std::size_t rounded = (size / alignment + 1) * alignment;
  data_.reset(static_cast<char*>(std::aligned_alloc(alignment, rounded)));
  if (!data_) throw std::bad_alloc();
  // Otherwise the page faults of an array take longer than to decode it. Where the system does not
  // know the advice, nothing is lost.
  const std::size_t huge = size / kHugePage * kHugePage;
  if (huge > 0) ::madvise(data_.get(), huge, MADV_HUGEPAGE);
  if (size >= kFresh)
    ::madvise(data_.get() + huge, (size - huge) / kPage * kPage, MADV_POPULATE_WRITE);
}

Bytes Memory::release(std::size_t size) && {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(data_.get());
  const nb::capsule owner(data_.get(), [](void* data) noexcept { std::free(data); });
  static_cast<void>(data_.release());
  return {bytes, {size}, owner};
}

}  // namespace kyr::python
