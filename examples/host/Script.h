#pragma once

#include <istream>
#include <ostream>

#include "kyr/host/ReferenceHost.h"

/// Runs a script, line by line: the full name of a method, then the fields NAME=VALUE of its
/// argument. VALUE is true, false, a number or text. Prints what the methods return.
/// \throws std::exception  what the methods throw
void runScript(kyr::host::ReferenceHost& host, std::istream& script, std::ostream& out);
