#pragma once

#include "kyr/host/HostObjectSystem.h"

namespace kyr::host {

/// Adds the library's methods to the host's namespace "Tarnwick.kyr": at once if it exists,
/// otherwise when it is first opened.
void registerLibrary(HostObjectSystem& host);

}  // namespace kyr::host
