#pragma once

namespace kyr::tool {

/// To be called first. From then on a failure to write is an error and not a signal: to a pipe that
/// nobody reads any more, or beyond the largest size of a file. Standard streams that the caller
/// closed lead nowhere, so that no file gets their descriptor, and with it what is printed.
void prepareProcess();

/// Lets the process have as many files open as the system allows it. Signals of matrices and blobs
/// have their files open while they are read side by side.
void allowManyFiles();

}  // namespace kyr::tool
