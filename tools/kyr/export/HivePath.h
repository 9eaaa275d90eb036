#pragma once

#include <string>
#include <string_view>

/// The names of partitions: folders "key=value", as Hive, Spark, Arrow and DuckDB read them.
namespace kyr::tool {

/// "signal=a%2Fb" for the value "a/b". Characters beyond ASCII stay as they are, because readers
/// decode a percent sign into a character, not into a byte.
std::string partitionFolder(std::string_view key, std::string_view value);

/// Whether a file system accepts the name for one file or folder.
bool isFileName(std::string_view name);

}  // namespace kyr::tool
