#pragma once

#include <cstddef>
#include <string_view>

namespace kyr::tool {

/// A file of the page, which CMake puts into the program.
struct PageFile {
  std::string_view name;
  std::string_view text;
};

/// Modules come after those that they import.
extern const PageFile kPageFiles[];
extern const std::size_t kPageFileCount;

}  // namespace kyr::tool
