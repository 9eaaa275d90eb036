#include "print/RecordingSummary.h"

#include <fmt/format.h>

#include <stdexcept>

#include "cli/Text.h"

namespace kyr::tool {

std::string stateOf(recording::RecordingState state, const std::string& folder) {
  return state == recording::RecordingState::beingRecorded ? "recording..."
                                                           : "not finished: kyr recover " + folder;
}

void requireFinished(const recording::RecordingReader& reader, const std::string& folder) {
  using recording::RecordingState;
  if (reader.state() == RecordingState::finished) return;
  throw std::runtime_error(
      fmt::format("{} is {}", folder,
                  reader.state() == RecordingState::beingRecorded
                      ? "still being recorded, and this command needs a finished recording"
                      : stateOf(reader.state(), folder)));
}

RecordingSummary::RecordingSummary(const recording::RecordingInfo& info)
    : signalCount_(info.signals.size()), packCount_(info.packs.size()) {
  for (const recording::FileInfo& file : info.files) {
    if (file.pack) ++packedCount_;
    files_[file.storageId].size = file.size;
    storedBytes_ += file.size;
  }
  for (const recording::SignalInfo& signal : info.signals) {
    bytesWithoutSharing_ += bytesOf(signal);
    if (signal.timeStorageId) ++files_[*signal.timeStorageId].users;
    if (signal.dataStorageId && signal.dataStorageId != signal.timeStorageId) {
      ++files_[*signal.dataStorageId].users;
    }
  }
  for (const auto& [id, file] : files_) {
    if (file.users == 0) bytesWithoutSharing_ += file.size;
  }
}

std::uint64_t RecordingSummary::sizeOf(const std::optional<int>& storageId) const {
  const auto found = storageId ? files_.find(*storageId) : files_.end();
  return found == files_.end() ? 0 : found->second.size;
}

std::uint64_t RecordingSummary::bytesOf(const recording::SignalInfo& signal) const {
  return sizeOf(signal.timeStorageId) + sizeOf(signal.dataStorageId);
}

std::size_t RecordingSummary::usersOf(int storageId) const {
  const auto found = files_.find(storageId);
  return found == files_.end() ? 0 : found->second.users;
}

std::string RecordingSummary::text() const {
  std::string text = fmt::format("{} in {}, {}", counted(signalCount_, "signal"),
                                 counted(fileCount(), "file"), byteCount(storedBytes_));
  if (savedBytes() > 0) text += "; sharing files saved " + byteCount(savedBytes());
  if (packCount_ > 0) {
    text += fmt::format("; {} in {}", counted(packedCount_, "small content"),
                        counted(packCount_, "pack"));
  }
  return text;
}

}  // namespace kyr::tool
