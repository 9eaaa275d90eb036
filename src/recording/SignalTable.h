#pragma once

#include <functional>
#include <string>

#include "kyr/recording/RecordingInfo.h"
#include "platform/Folder.h"
#include "recording/OpenFolder.h"

namespace kyr::recording {

/// The bytes of signals.parquet: a Parquet file with one row for each signal, in which other
/// programs find data by name. docs/format.md describes its columns.
std::string signalTable(const RecordingInfo& info);

/// Puts signals.parquet and then recording.json in a folder, each in one step.
/// \param info  gets the checksum of signals.parquet
/// \param syncs  whether both are on the disk when the call returns
/// \param wait  called before recording.json is written
/// \throws std::exception naming the file, or what wait() throws; recording.json is as it was then
void writeDescription(
    const Folder& folder, RecordingInfo& info, bool syncs,
    const std::function<void()>& wait = [] {});

/// What is wrong with the folder's signals.parquet; empty if it is what recording.json says, or if
/// that is of a version that has none.
std::string signalTableFault(const OpenFolder& folder, const RecordingInfo& info);

}  // namespace kyr::recording
