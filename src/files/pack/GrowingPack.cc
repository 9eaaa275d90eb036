#include "files/pack/GrowingPack.h"

#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>

#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

#include "files/ParquetTail.h"

namespace kyr::parquet {

namespace {

constexpr std::string_view kNameBegin = "live-";
constexpr std::string_view kNameEnd = ".parquet";

// The number that is all of a text.
std::optional<int> wholeNumber(std::string_view text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0) return std::nullopt;
  return number;
}

}  // namespace

std::string growingPackName(int number) {
  return fmt::format("{}{}{}", kNameBegin, number, kNameEnd);
}

std::optional<int> growingPackNumber(std::string_view name) {
  const std::size_t around = kNameBegin.size() + kNameEnd.size();
  if (name.size() <= around || name.substr(0, kNameBegin.size()) != kNameBegin ||
      name.substr(name.size() - kNameEnd.size()) != kNameEnd) {
    return std::nullopt;
  }
  return wholeNumber(name.substr(kNameBegin.size(), name.size() - around));
}

std::unique_ptr<GrowingPack> GrowingPack::open(std::shared_ptr<const DiskFile> file,
                                               BatchChecks checks, BatchChecks readChecks,
                                               std::shared_ptr<RowGroupCache> cache) {
  std::unique_ptr<GrowingPack> pack(new GrowingPack(std::move(file), checks));
  auto records = recordsFromStart(*pack->file_, pack->limits());
  if (!records) return nullptr;
  pack->records_ = std::make_shared<GrowingRecords>(*std::move(records));
  pack->content_ = std::make_shared<ContentFile>(
      std::make_shared<InputFile>(pack->file_, pack->records_, readChecks), ContentFile::Kind::pack,
      std::move(cache));
  return pack;
}

RecordLimits GrowingPack::limits() {
  RecordLimits limits;
  limits.end = file_->size();
  limits.checks = checks_ == BatchChecks::yes;
  limits.taken = [this](const WholeRecord& record) { take(record); };
  return limits;
}

void GrowingPack::refresh() { content_->input().readOn(limits()); }

// Rows of a record that does not say whose they are cannot be had, and neither can those behind it:
// whose they are is certain only if no row is missing before them.
void GrowingPack::take(const WholeRecord& record) {
  if (isBroken_) return;
  const auto metadata = parseMetadata(record.metadata);
  const auto pairs = metadata->key_value_metadata();
  std::optional<std::vector<PackRunGroup>> groups;
  if (pairs && pairs->Contains(kPackRunsKey)) {
    groups = readRuns(pairs->Get(kPackRunsKey).ValueOr(""), record.header.rows);
  }
  isBroken_ = !groups;
  if (isBroken_) return;
  index_.add(*groups, record.header.rows);
  if (pairs->Contains(kPackFlushKey)) lastFlush_ = pairs->Get(kPackFlushKey).ValueOr("");
  const std::string prefix = std::string(kPackNotesKey) + ".";
  for (std::int64_t i = 0; i < pairs->size(); ++i) {
    const std::string_view key = pairs->key(i);
    if (key.substr(0, prefix.size()) != prefix) continue;
    if (const auto id = wholeNumber(key.substr(prefix.size()))) notes_[*id] = pairs->value(i);
  }
}

}  // namespace kyr::parquet
