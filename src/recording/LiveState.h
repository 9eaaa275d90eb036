#pragma once

#include <cstdint>
#include <string>

#include "kyr/recording/RecordingInfo.h"
#include "recording/OpenFolder.h"

namespace kyr::recording {

/// A live recording as of its last flush: its signals, and the rows that each of them has.
/// \throws std::runtime_error naming the file or folder and what is wrong with it
LiveRecordingInfo readLiveState(const OpenFolder& folder);

/// The name of a file of a live recording. One that an older version began has other names.
std::string nameOfLiveFile(const OpenFolder& folder, int storageId);
/// The size of a file of a live recording; 0 if it is not there, or no more.
std::uint64_t sizeOfLiveFile(const OpenFolder& folder, int storageId);

}  // namespace kyr::recording
