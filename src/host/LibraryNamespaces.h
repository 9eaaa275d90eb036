#pragma once

#include "kyr/host/HostObjectSystem.h"

namespace kyr::host {

/// Makes the library's methods members of the host's "Tarnwick.kyr": at once where that namespace
/// exists, else when it is first opened.
void registerLibrary(HostObjectSystem& host);

}  // namespace kyr::host
