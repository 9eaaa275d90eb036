#include "cli/Memory.h"

#include <fstream>
#include <limits>
#include <string>

namespace kyr::tool {

std::optional<std::uint64_t> availableMemory() {
  constexpr std::uint64_t kKibibyte = 1024;
  std::ifstream file("/proc/meminfo");
  std::string key;
  std::uint64_t kibibytes = 0;
  while (file >> key >> kibibytes) {
    if (key == "MemAvailable:") return kibibytes * kKibibyte;
    file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
  return std::nullopt;
}

}  // namespace kyr::tool
