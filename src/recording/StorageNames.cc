#include "recording/StorageNames.h"

#include <charconv>
#include <system_error>

#include "files/pack/GrowingPack.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace {

constexpr std::string_view kExtension = kStorageExtension;
constexpr std::string_view kPackPrefix = "pack-";

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// The text without an end that it has; empty if it has another one.
std::string_view without(std::string_view text, std::string_view end) {
  if (text.size() < end.size() || text.substr(text.size() - end.size()) != end) return {};
  return text.substr(0, text.size() - end.size());
}

}  // namespace

std::string storageName(int storageId, int formatVersion) {
  constexpr int kFirstWithExtension = 3;
  std::string name = std::to_string(storageId);
  if (formatVersion >= kFirstWithExtension) name += kExtension;
  return name;
}

std::optional<int> storageIdOf(std::string_view name) {
  const std::string_view stem = without(name, kExtension);
  const std::string_view digits = stem.empty() ? name : stem;
  int id = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  if (error != std::errc() || std::to_string(id) != digits) return std::nullopt;
  return id;
}

std::string packName(int number) {
  return std::string(kPackPrefix).append(std::to_string(number)).append(kExtension);
}

bool isPackName(std::string_view name) {
  return name.substr(0, kPackPrefix.size()) == kPackPrefix &&
         isNumber(without(name.substr(kPackPrefix.size()), kExtension));
}

std::string fileName(const RecordingInfo& info, const FileInfo& content) {
  return content.pack ? packName(*content.pack)
                      : storageName(content.storageId, info.formatVersion);
}

bool isStorageName(std::string_view name) {
  return isPackName(name) || parquet::growingPackNumber(name) || isNumber(name) ||
         isNumber(without(name, kExtension)) || isNumber(without(name, ".copy"));
}

std::string pathOf(const RecordingInfo& info, const FileInfo& content) {
  return std::string(kStorageFolder).append("/").append(fileName(info, content));
}

}  // namespace kyr::recording
