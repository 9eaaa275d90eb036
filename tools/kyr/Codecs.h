#pragma once

#include <arrow/util/type_fwd.h>

#include <string>

/// The codecs that commands offer for Parquet files.
namespace kyr::tool {

/// The names that codecCalled() knows, as a list to read.
std::string codecNames();

/// \throws UsageError if there is no such codec
::arrow::Compression::type codecCalled(const std::string& name);

}  // namespace kyr::tool
