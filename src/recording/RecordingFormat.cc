#include "recording/RecordingFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "recording/Checksum.h"
#include "recording/PackedFormat.h"
#include "recording/RecordingFolder.h"
#include "recording/SignalJson.h"
#include "schema/TypeNames.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace {

using nlohmann::json;

constexpr const char* kFormatName = "kyr recording";

template <typename T>
json orNull(const std::optional<T>& value) {
  return value ? json(*value) : json(nullptr);
}

template <typename T>
std::optional<T> optionalMember(const json& object, const char* name) {
  const json& member = object.at(name);
  return member.is_null() ? std::nullopt : std::make_optional(member.get<T>());
}

json storedJson(const SignalInfo& signal) {
  json object = describedJson(signal);
  json span = nullptr;
  // JSON has no infinities.
  if (signal.timeSpan && std::isfinite(signal.timeSpan->from) &&
      std::isfinite(signal.timeSpan->to)) {
    span = {signal.timeSpan->from, signal.timeSpan->to};
  }
  object["compression"] = signal.compression;
  object["rowCount"] = signal.rowCount;
  object["timeSpan"] = std::move(span);
  return object;
}

SignalInfo storedFromJson(const json& object) {
  SignalInfo signal = describedFromJson(object);
  object.at("compression").get_to(signal.compression);
  object.at("rowCount").get_to(signal.rowCount);
  const json& span = object.at("timeSpan");
  if (!span.is_null()) signal.timeSpan = {span.at(0).get<double>(), span.at(1).get<double>()};
  return signal;
}

constexpr const char* kBlocks = "blocks_xxh3_64";
constexpr std::size_t kBlockDigits = 16;

std::string blocksText(const std::vector<std::uint64_t>& blocks) {
  std::string text;
  for (const std::uint64_t block : blocks) text += fmt::format("{:016x}", block);
  return text;
}

std::vector<std::uint64_t> blocksOf(const json& object) {
  std::vector<std::uint64_t> blocks;
  if (!object.contains(kBlocks)) return blocks;
  const auto text = object.at(kBlocks).get<std::string>();
  for (std::size_t at = 0; at < text.size(); at += kBlockDigits) {
    const char* const end = text.data() + std::min(at + kBlockDigits, text.size());
    std::uint64_t block = 0;
    const auto [stop, error] = std::from_chars(text.data() + at, end, block, 16);
    if (error != std::errc() || stop != text.data() + at + kBlockDigits) {
      throw std::runtime_error(fmt::format("\"{}\" holds no checksum at digit {}", kBlocks, at));
    }
    blocks.push_back(block);
  }
  return blocks;
}

json toJson(const FileInfo& file) {
  json object{{"storageId", file.storageId},
              {"size", file.size},
              {"rowCount", file.rowCount},
              {"xxh3_128", file.checksum}};
  if (!file.blocks.empty()) object[kBlocks] = blocksText(file.blocks);
  return object;
}

FileInfo fileFromJson(const json& object) {
  FileInfo file;
  object.at("storageId").get_to(file.storageId);
  object.at("rowCount").get_to(file.rowCount);
  if (object.contains("pack")) {
    object.at("pack").get_to(file.pack.emplace());
    object.at("firstRow").get_to(file.firstRow);
    return file;
  }
  object.at("size").get_to(file.size);
  object.at("xxh3_128").get_to(file.checksum);
  file.blocks = blocksOf(object);
  return file;
}

PackInfo packFromJson(const json& object) {
  PackInfo pack;
  object.at("pack").get_to(pack.number);
  object.at("size").get_to(pack.size);
  object.at("rowCount").get_to(pack.rowCount);
  object.at("xxh3_128").get_to(pack.checksum);
  pack.blocks = blocksOf(object);
  return pack;
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
        throw std::runtime_error(fmt::format(
            "signal {} names the file storage/{}, which is not listed", signal.signalId, *id));
      }
    }
  }
}

// Where packed contents lie, and what they take there.
void placeInPacks(RecordingInfo& info) {
  std::map<int, const PackInfo*> packs;
  for (const PackInfo& pack : info.packs) packs[pack.number] = &pack;
  for (FileInfo& file : info.files) {
    if (!file.pack) continue;
    const auto found = packs.find(*file.pack);
    if (found == packs.end()) {
      throw std::runtime_error(fmt::format("storage id {} lies in {}/{}, which is not listed",
                                           file.storageId, kStorageFolder, packName(*file.pack)));
    }
    const PackInfo& pack = *found->second;
    if (file.firstRow > pack.rowCount || file.rowCount > pack.rowCount - file.firstRow) {
      throw std::runtime_error(fmt::format(
          "storage id {} is {} rows from {} on of {}/{}, which has {}", file.storageId,
          file.rowCount, file.firstRow, kStorageFolder, packName(*file.pack), pack.rowCount));
    }
    // Such that the shares add up.
    const auto bytesBefore = [&](std::uint64_t row) {
      if (pack.rowCount == 0) return pack.size;
      return static_cast<std::uint64_t>(static_cast<double>(row) /
                                        static_cast<double>(pack.rowCount) *
                                        static_cast<double>(pack.size));
    };
    file.size = bytesBefore(file.firstRow + file.rowCount) - bytesBefore(file.firstRow);
  }
}

// Checks what one part says of another, and adds what follows from it.
void complete(RecordingInfo& info) {
  checkFileNames(info);
  placeInPacks(info);
}

std::string recordsOf(const RecordingInfo& info) {
  std::vector<parquet::SignalRecord> records;
  for (const SignalInfo& signal : info.signals) {
    if (!signal.timeStorageId && !signal.dataStorageId) continue;
    records.push_back({signal.signalId, signal.timeStorageId.value_or(parquet::kNoStorage),
                       signal.dataStorageId.value_or(parquet::kNoStorage)});
  }
  return parquet::writeSignalRecords(records);
}

RecordingInfo infoFromJson(const json& document) {
  if (!document.is_object() || document.value("format", "") != kFormatName) {
    throw std::runtime_error("not the description of a recording");
  }
  RecordingInfo info;
  document.at("formatVersion").get_to(info.formatVersion);
  if (info.formatVersion > kFormatVersion) {
    throw std::runtime_error(fmt::format(
        "format version {} is newer than {}, the newest that is known here: use a newer "
        "version of kyr",
        info.formatVersion, kFormatVersion));
  }
  if (document.at("xxh3_128").get<std::string>() != documentChecksum(document)) {
    throw std::runtime_error("damaged: its checksum does not match its content");
  }
  if (info.formatVersion < 2) document.at("records").get_to(info.records);
  for (const json& signal : document.at("signals")) info.signals.push_back(storedFromJson(signal));
  for (const json& file : document.at("files")) info.files.push_back(fileFromJson(file));
  if (info.formatVersion >= 2) {
    for (const json& pack : document.at("packs")) info.packs.push_back(packFromJson(pack));
  }
  complete(info);
  return info;
}

}  // namespace

json describedJson(const SignalInfo& signal) {
  return {{"id", signal.signalId},
          {"name", signal.name},
          {"unit", signal.unit},
          {"description", signal.description},
          {"dataType", dataTypeName(signal.dataType)},
          {"category", categoryName(signal.category)},
          {"dimensions", signal.dimensions},
          {"timeStorageId", orNull(signal.timeStorageId)},
          {"dataStorageId", orNull(signal.dataStorageId)}};
}

SignalInfo describedFromJson(const json& object) {
  SignalInfo signal;
  object.at("id").get_to(signal.signalId);
  object.at("name").get_to(signal.name);
  object.at("unit").get_to(signal.unit);
  object.at("description").get_to(signal.description);
  signal.dataType = dataTypeCalled(object.at("dataType").get<std::string>());
  signal.category = categoryCalled(object.at("category").get<std::string>());
  object.at("dimensions").get_to(signal.dimensions);
  signal.timeStorageId = optionalMember<int>(object, "timeStorageId");
  signal.dataStorageId = optionalMember<int>(object, "dataStorageId");
  return signal;
}

std::string documentChecksum(json document) {
  document.erase("xxh3_128");
  return checksumOf(document.dump());
}

void requireText(const SignalDescription& signal) {
  for (const std::string& text : {signal.name, signal.unit, signal.description}) {
    try {
      static_cast<void>(toUtf16(text));
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(fmt::format("signal {}: {}", signal.signalId, error.what()));
    }
  }
}

std::string writeRecordingJson(const RecordingInfo& info) {
  if (info.formatVersion > 1) return writePackedJson(info);
  json document = {{"format", kFormatName},
                   {"formatVersion", info.formatVersion},
                   {"records", info.records.empty() ? recordsOf(info) : info.records},
                   {"signals", json::array()},
                   {"files", json::array()}};
  for (const SignalInfo& signal : info.signals) {
    requireText(signal);
    document["signals"].push_back(storedJson(signal));
  }
  for (const FileInfo& file : info.files) document["files"].push_back(toJson(file));
  document["xxh3_128"] = documentChecksum(document);
  return document.dump(1) + "\n";
}

RecordingInfo readRecordingJson(const std::string& text, const std::string& source) {
  try {
    if (auto info = readPackedJson(text); info && info->formatVersion == 2) {
      complete(*info);
      return *std::move(info);
    }
    return infoFromJson(json::parse(text));
  } catch (const json::parse_error& error) {
    throw std::runtime_error(
        fmt::format("{}: damaged: no valid JSON at byte {}", source, error.byte));
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("{}: {}", source, error.what()));
  }
}

}  // namespace kyr::recording
