#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "files/InputFile.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// Widens a span to a time, unless that is NaN.
void noteTime(std::optional<TimeSpan>& span, double time);

/// Smallest and largest number of a float64 column, NaN left out; empty without such numbers.
/// \throws std::runtime_error naming the file if it cannot be read
std::optional<TimeSpan> spanOf(parquet::InputFile& file, const std::string& column);

/// Opens a complete Parquet file of a storage folder.
/// \throws std::runtime_error naming the file if it is none
std::unique_ptr<parquet::InputFile> openFile(const std::filesystem::path& path);

}  // namespace kyr::recording
