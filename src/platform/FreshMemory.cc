#include "platform/FreshMemory.h"

#include <sys/mman.h>

#include <cstdint>

namespace kyr::platform {

#ifdef MADV_POPULATE_WRITE
// No huge pages: on a virtual machine that gives free memory back to its host, the first use of one
// now and then takes as long as that of hundreds of pages.
void provide(void* memory, std::size_t size) noexcept {
  constexpr std::size_t kPage = 4096;
  constexpr std::size_t kWorthwhile = 16 * kPage;
  auto* const begin = static_cast<char*>(memory);
  const std::size_t before = -reinterpret_cast<std::uintptr_t>(begin) % kPage;
  if (size < before + kWorthwhile) return;
  // If it fails, reading is only slower.
  madvise(begin + before, (size - before) / kPage * kPage, MADV_POPULATE_WRITE);
}
#else
void provide(void* /*memory*/, std::size_t /*size*/) noexcept {}
#endif

}  // namespace kyr::platform
