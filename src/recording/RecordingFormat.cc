#include "recording/RecordingFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "recording/Checksum.h"
#include "recording/JsonDocument.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingMembers.h"

namespace kyr::recording {

namespace {

constexpr DocumentFormat kFormat{kFormatName, kFormatVersion, "recording"};

// Sorts items by their numbers, and refuses two of the same.
template <typename Item, typename NumberOf>
void sortUnique(std::vector<Item>& items, const char* list, const char* thing, NumberOf numberOf) {
  const auto isLess = [&](const Item& a, const Item& b) { return numberOf(a) < numberOf(b); };
  if (!std::is_sorted(items.begin(), items.end(), isLess)) {
    std::sort(items.begin(), items.end(), isLess);
  }
  const auto twice =
      std::adjacent_find(items.begin(), items.end(),
                         [&](const Item& a, const Item& b) { return numberOf(a) == numberOf(b); });
  if (twice != items.end()) {
    throw std::runtime_error(
        fmt::format("\"{}\" lists {} {} twice", list, thing, numberOf(*twice)));
  }
}

bool namesFile(const RecordingInfo& info, int storageId) {
  // Mostly no number is left out.
  const std::int64_t guess =
      info.files.empty() ? -1 : std::int64_t{storageId} - info.files.front().storageId;
  if (guess >= 0 && guess < static_cast<std::int64_t>(info.files.size()) &&
      info.files[static_cast<std::size_t>(guess)].storageId == storageId) {
    return true;
  }
  const auto at =
      std::lower_bound(info.files.begin(), info.files.end(), storageId,
                       [](const FileInfo& file, int id) { return file.storageId < id; });
  return at != info.files.end() && at->storageId == storageId;
}

void checkFileNames(const RecordingInfo& info) {
  for (const SignalInfo& signal : info.signals) {
    for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
      if (id && !namesFile(info, *id)) {
        throw std::runtime_error(fmt::format("signal {} names the file {}/{}, which is not listed",
                                             signal.signalId, kStorageFolder,
                                             storageName(*id, info.formatVersion)));
      }
    }
  }
}

// \param name  of the file or pack, in the storage folder
void checkBlocks(const std::vector<std::uint64_t>& blocks, std::uint64_t size,
                 const std::string& name) {
  const std::uint64_t expected = size / kBlockBytes + (size % kBlockBytes != 0 ? 1 : 0);
  if (blocks.empty() || blocks.size() == expected) return;
  throw std::runtime_error(
      fmt::format("\"blocks_xxh3_64\" of {}/{} has {} digests, expected {} for {} bytes",
                  kStorageFolder, name, blocks.size(), expected, size));
}

// Tells of a packed content which share of the pack's bytes it has. The shares add up.
void placeInPack(FileInfo& file, const PackInfo& pack) {
  if (file.firstRow > pack.rowCount || file.rowCount > pack.rowCount - file.firstRow) {
    throw std::runtime_error(fmt::format(
        "storage id {} is {} rows from {} on of {}/{}, which has {}", file.storageId, file.rowCount,
        file.firstRow, kStorageFolder, packName(pack.number), pack.rowCount));
  }
  const auto bytesBefore = [&](std::uint64_t row) {
    if (pack.rowCount == 0) return pack.size;
    return static_cast<std::uint64_t>(static_cast<double>(row) /
                                      static_cast<double>(pack.rowCount) *
                                      static_cast<double>(pack.size));
  };
  file.size = bytesBefore(file.firstRow + file.rowCount) - bytesBefore(file.firstRow);
}

void checkFiles(RecordingInfo& info) {
  for (const PackInfo& pack : info.packs) {
    if (pack.number < 0) {
      throw std::runtime_error(
          fmt::format("\"packs\" lists pack {}, expected 0 or more", pack.number));
    }
    checkBlocks(pack.blocks, pack.size, packName(pack.number));
  }
  for (FileInfo& file : info.files) {
    if (!file.pack) {
      checkBlocks(file.blocks, file.size, fileName(info, file));
      continue;
    }
    const auto pack =
        std::lower_bound(info.packs.begin(), info.packs.end(), *file.pack,
                         [](const PackInfo& listed, int number) { return listed.number < number; });
    if (pack == info.packs.end() || pack->number != *file.pack) {
      throw std::runtime_error(fmt::format("storage id {} lies in {}/{}, which is not listed",
                                           file.storageId, kStorageFolder, packName(*file.pack)));
    }
    placeInPack(file, *pack);
  }
}

// Checks what one member says of another.
void checkAsAWhole(RecordingInfo& info) {
  sortUnique(info.signals, "signals", "signal", [](const auto& signal) { return signal.signalId; });
  sortUnique(info.files, "files", "storage id", [](const auto& file) { return file.storageId; });
  sortUnique(info.packs, "packs", "pack", [](const auto& pack) { return pack.number; });
  checkFileNames(info);
  for (const SignalInfo& signal : info.signals) requireCountable(signal);
  checkFiles(info);
}

}  // namespace

std::string writeRecordingJson(const RecordingInfo& info) {
  for (const SignalInfo& signal : info.signals) {
    requireText(signal);
    requireCountable(signal);
  }
  // Packed recordings may have very many signals, and white space would be a third of their text.
  const auto layout =
      info.packs.empty() ? JsonWriter::Layout::indented : JsonWriter::Layout::compact;
  constexpr std::size_t kBytesEach = 320;
  JsonWriter out(layout, kBytesEach * (info.signals.size() + info.files.size()));
  JsonValue<RecordingInfo>::write(out, info);
  return withChecksum(out.take(), layout);
}

RecordingInfo readRecordingJson(std::string_view text, const std::string& source) {
  auto info = readDocument<RecordingInfo>(text, kFormat, source);
  try {
    checkAsAWhole(info);
  } catch (const std::exception& error) {
    throw std::runtime_error(source + ": " + error.what());
  }
  return info;
}

}  // namespace kyr::recording
