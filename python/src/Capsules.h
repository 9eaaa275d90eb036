#pragma once

#include <arrow/c/abi.h>
#include <nanobind/nanobind.h>

#include <memory>

namespace kyr::python {

/// \brief A capsule that Arrow's users in Python take a stream from. Releases it if nobody did.
nanobind::capsule streamCapsule(std::unique_ptr<ArrowArrayStream> stream);

/// \brief The schema of the stream in a capsule, in a capsule of its own.
nanobind::capsule schemaCapsule(const nanobind::capsule& stream);

}  // namespace kyr::python
