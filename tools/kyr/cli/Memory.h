#pragma once

#include <cstdint>
#include <optional>

namespace kyr::tool {

/// Bytes that the system could still give to a process; empty if it does not say.
std::optional<std::uint64_t> availableMemory();

}  // namespace kyr::tool
