#include "recording/LivePacks.h"

#include <algorithm>
#include <set>
#include <system_error>
#include <utility>

namespace kyr::recording {

using parquet::ContentRun;
using parquet::GrowingPack;

LivePacks::LivePacks(std::shared_ptr<const OpenFolder> folder, const Options& options,
                     std::shared_ptr<parquet::RowGroupCache> cache)
    : folder_(std::move(folder)), options_(options), cache_(std::move(cache)) {}

void LivePacks::refresh() {
  std::set<std::string> names;
  for (std::string& name : folder_->storedNames()) {
    if (parquet::growingPackNumber(name)) names.insert(std::move(name));
  }
  unreadable_.clear();
  for (auto known = packs_.begin(); known != packs_.end();) {
    known = names.count(known->first) > 0 ? std::next(known) : packs_.erase(known);
  }
  for (const std::string& name : names) {
    const auto known = packs_.find(name);
    if (known != packs_.end()) {
      known->second->refresh();
      continue;
    }
    try {
      auto pack = GrowingPack::open(folder_->openStored(name), options_.checks, options_.readChecks,
                                    cache_);
      if (pack) {
        packs_.emplace(name, std::move(pack));
        continue;
      }
    } catch (const std::system_error& error) {
      if (error.code() == std::errc::no_such_file_or_directory) continue;  // replaced meanwhile
      if (error.code() == std::errc::too_many_files_open) throw;
    } catch (const std::runtime_error&) {
      // It is no pack.
    }
    unreadable_.push_back(name);
  }
}

std::vector<ContentRun> LivePacks::runsOf(int storageId, std::uint64_t from) const {
  std::vector<ContentRun> all;
  for (const auto& [name, pack] : packs_) {
    const auto& content = pack->content();
    pack->index().forEachRun(storageId, [&](std::uint64_t row, const parquet::PackRun& run) {
      if (run.first + run.count > from) all.push_back({run.first, run.count, row, content});
    });
  }
  const auto isBefore = [](const ContentRun& a, const ContentRun& b) { return a.first < b.first; };
  if (!std::is_sorted(all.begin(), all.end(), isBefore)) {
    std::stable_sort(all.begin(), all.end(), isBefore);
  }
  // A pack that replaced another repeats rows of it.
  std::vector<ContentRun> runs;
  for (ContentRun run : all) {
    if (run.first > from) break;
    const std::uint64_t known = from - run.first;
    if (run.count <= known) continue;
    run.first += known;
    run.row += known;
    run.count -= known;
    from += run.count;
    runs.push_back(std::move(run));
  }
  return runs;
}

LivePacks checkedPacks(std::shared_ptr<const OpenFolder> folder) {
  LivePacks packs(std::move(folder), {parquet::BatchChecks::yes, parquet::BatchChecks::no},
                  std::make_shared<parquet::RowGroupCache>());
  packs.refresh();
  return packs;
}

}  // namespace kyr::recording
