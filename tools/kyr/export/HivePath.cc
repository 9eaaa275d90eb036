#include "export/HivePath.h"

#include <fmt/format.h>

namespace kyr::tool {

namespace {

// The folder name of a null value.
constexpr std::string_view kNull = "__HIVE_DEFAULT_PARTITION__";

bool isEscaped(char c) {
  constexpr std::string_view kSpecial = "\"#%'*/:=?\\{[]^\x7f";
  return static_cast<unsigned char>(c) < 0x20 || kSpecial.find(c) != std::string_view::npos;
}

}  // namespace

std::string partitionFolder(std::string_view key, std::string_view value) {
  std::string name = fmt::format("{}=", key);
  if (value == kNull) {
    name += "%5F";
    value.remove_prefix(1);
  }
  for (const char c : value) {
    name +=
        isEscaped(c) ? fmt::format("%{:02X}", static_cast<unsigned char>(c)) : std::string(1, c);
  }
  return name;
}

bool isFileName(std::string_view name) {
  constexpr std::size_t kLongest = 255;
  return !name.empty() && name.size() <= kLongest;
}

}  // namespace kyr::tool
