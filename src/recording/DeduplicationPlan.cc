#include "recording/DeduplicationPlan.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>

#include "recording/RecordingFolder.h"

namespace kyr::recording {

const PackInfo& packOf(const std::vector<PackInfo>& packs, int number) {
  return *std::find_if(packs.begin(), packs.end(),
                       [number](const PackInfo& pack) { return pack.number == number; });
}

const PackInfo& ContentIndex::Place::pack() const { return packOf(run->packs, *file->pack); }

std::filesystem::path ContentIndex::Place::path() const { return contentPath(run->folder, *file); }

void ContentIndex::add(const std::filesystem::path& folder, const RecordingInfo& info) {
  forgetFolder(folder);
  if (info.formatVersion != kFormatVersion) return;  // it has no digests, and other names of files
  auto run = std::make_unique<Run>();
  for (const FileInfo& file : info.files) {
    const bool isNew =
        !file.contentDigest.empty() && placesFor(file).count(file.contentDigest) == 0;
    if (isNew) run->files.push_back(file);
  }
  if (run->files.empty()) return;
  run->folder = folder;
  run->packs = info.packs;
  for (const FileInfo& file : run->files) {
    placesFor(file).try_emplace(file.contentDigest, Place{run.get(), &file});
  }
  runs_[folder] = std::move(run);
}

void ContentIndex::forgetFolder(const std::filesystem::path& folder) {
  const auto known = runs_.find(folder);
  if (known == runs_.end()) return;
  for (const FileInfo& file : known->second->files) {
    Places& places = placesFor(file);
    const auto place = places.find(file.contentDigest);
    if (place != places.end() && place->second.run == known->second.get()) places.erase(place);
  }
  runs_.erase(known);
}

bool ContentIndex::forgetFiles(const std::set<std::filesystem::path>& files) {
  const std::size_t before = wholes_.size() + packed_.size();
  for (Places* const places : {&wholes_, &packed_}) {
    for (auto it = places->begin(); it != places->end();) {
      it = files.count(it->second.path()) > 0 ? places->erase(it) : std::next(it);
    }
  }
  return wholes_.size() + packed_.size() < before;
}

const ContentIndex::Place* ContentIndex::find(const Places& places, const std::string& digest) {
  const auto found = places.find(digest);
  return found == places.end() ? nullptr : &found->second;
}

DeduplicationPlan::DeduplicationPlan(const RecordingInfo& info, const ContentIndex& index) {
  for (const FileInfo& file : info.files) {
    contents_.push_back({&file});
    lastId_ = std::max(lastId_, file.storageId);
  }
  choosePlaces(index);
  giveIdsOfPacks();
  keepPacks();
  giveOtherIds();
}

// A pack that has little for the recording would stay on the disk for this little when its own
// recording is deleted.
void DeduplicationPlan::choosePlaces(const ContentIndex& index) {
  std::map<const PackInfo*, std::uint64_t> rows;
  std::set<std::string> counted;
  const auto packedPlace = [&](const Content& content) {
    return index.packed(content.old->contentDigest);
  };
  for (const Content& content : contents_) {
    const ContentIndex::Place* const place = packedPlace(content);
    if (place && counted.insert(content.old->contentDigest).second) {
      rows[&place->pack()] += content.old->rowCount;
    }
  }
  for (Content& content : contents_) {
    content.place = index.whole(content.old->contentDigest);
    if (content.place) continue;
    const ContentIndex::Place* const place = packedPlace(content);
    if (place && rows[&place->pack()] >= (place->pack().rowCount + 1) / 2) content.place = place;
  }
}

void DeduplicationPlan::giveIdsOfPacks() {
  for (Content& content : contents_) {
    if (!content.place || !content.place->file->pack) continue;
    const int id = content.place->file->storageId;
    lastId_ = std::max(lastId_, id);
    if (!claim(content, id)) content.place = nullptr;
  }
}

// A pack none of whose contents lies elsewhere stays as it is, if its ids are free.
void DeduplicationPlan::keepPacks() {
  std::map<int, std::vector<Content*>> packs;
  for (Content& content : contents_) {
    if (content.old->pack) packs[*content.old->pack].push_back(&content);
  }
  for (const auto& [number, contents] : packs) {
    const bool stays = std::all_of(contents.begin(), contents.end(), [&](const Content* content) {
      return !content->place && taken_.count(content->old->storageId) == 0 &&
             claims_.count(content->old->contentDigest) == 0;
    });
    for (Content* const content : contents) {
      if (content->place) continue;
      content->isRepacked = !stays;
      if (!stays) continue;
      give(*content, content->old->storageId);
    }
  }
}

void DeduplicationPlan::giveOtherIds() {
  for (Content& content : contents_) {
    if (ids_.count(content.old->storageId) > 0) continue;
    if (!claim(content, content.old->storageId)) claim(content, unusedId());
  }
}

bool DeduplicationPlan::claim(Content& content, int id) {
  const std::string& digest = content.old->contentDigest;
  const auto known = claims_.find(digest);
  if (known != claims_.end()) {
    id = known->second;
  } else if (taken_.count(id) > 0) {
    return false;
  }
  give(content, id);
  return true;
}

void DeduplicationPlan::give(Content& content, int id) {
  claims_.try_emplace(content.old->contentDigest, id);
  taken_.insert(id);
  ids_[content.old->storageId] = id;
  content.id = id;
}

int DeduplicationPlan::unusedId() {
  if (lastId_ == std::numeric_limits<int>::max()) {
    throw std::runtime_error("there is no storage id left for a content");
  }
  return ++lastId_;
}

}  // namespace kyr::recording
