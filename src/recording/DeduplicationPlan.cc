#include "recording/DeduplicationPlan.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <set>
#include <stdexcept>

#include "recording/RecordingFolder.h"

namespace kyr::recording {

const PackInfo& ContentIndex::Place::pack() const {
  return *std::find_if(run->packs.begin(), run->packs.end(),
                       [this](const PackInfo& pack) { return pack.number == file->pack; });
}

std::filesystem::path ContentIndex::Place::path() const {
  return file->pack ? packPath(run->folder, *file->pack)
                    : storagePath(run->folder, file->storageId);
}

void ContentIndex::add(const std::filesystem::path& folder, const RecordingInfo& info) {
  if (info.formatVersion != kFormatVersion) return;  // it has no digests, and other names of files
  auto run = std::make_unique<Run>();
  for (const FileInfo& file : info.files) {
    const bool isNew = !file.contentDigest.empty() &&
                       (file.pack ? packed_ : wholes_).count(file.contentDigest) == 0;
    if (isNew) run->files.push_back(file);
  }
  if (run->files.empty()) return;
  run->folder = folder;
  run->packs = info.packs;
  for (const FileInfo& file : run->files) {
    (file.pack ? packed_ : wholes_).try_emplace(file.contentDigest, Place{run.get(), &file});
  }
  runs_.push_back(std::move(run));
}

void ContentIndex::forget(const std::filesystem::path& file) {
  for (Places* const places : {&wholes_, &packed_}) {
    for (auto it = places->begin(); it != places->end();) {
      it = it->second.path() == file ? places->erase(it) : std::next(it);
    }
  }
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
      return !content->place && owners_.count(content->old->storageId) == 0 &&
             claims_.count(content->old->contentDigest) == 0;
    });
    for (Content* const content : contents) {
      if (content->place) continue;
      content->isRepacked = !stays;
      if (!stays) continue;
      content->id = content->old->storageId;
      owners_[content->id] = content->old->contentDigest;
      claims_.try_emplace(content->old->contentDigest, content->id);
      ids_[content->id] = content->id;
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
  } else if (!owners_.try_emplace(id, digest).second) {
    return false;
  }
  claims_.try_emplace(digest, id);
  content.id = id;
  ids_[content.old->storageId] = id;
  return true;
}

int DeduplicationPlan::unusedId() {
  if (lastId_ == std::numeric_limits<int>::max()) {
    throw std::runtime_error("there is no storage id left for a content");
  }
  return ++lastId_;
}

}  // namespace kyr::recording
