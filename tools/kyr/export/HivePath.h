#pragma once

#include <string>
#include <string_view>

/// How partitions are named: folders "key=value", as Hive, Spark, Arrow and DuckDB read them.
namespace kyr::tool {

/// "signal=a%2Fb" for the value "a/b". Everything beyond ASCII stands as it is: readers decode a
/// percent sign into a character, not into a byte.
std::string partitionFolder(std::string_view key, std::string_view value);

/// Whether file systems take it for the name of one entry.
bool isFileName(std::string_view name);

}  // namespace kyr::tool
