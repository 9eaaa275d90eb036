#include "kyr/parquet/RedundancyEliminator.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "streaming/ChainTree.h"

namespace kyr::parquet::RedundancyEliminator {

namespace {

// The chains with the key of \p node; null if none is registered.
const std::vector<std::unique_ptr<FileNode>>* chainsOf(const Registry& registry,
                                                       const FileNode* node) {
  const auto found = registry.find(node->chainKey);
  return found == registry.end() ? nullptr : &found->second;
}

}  // namespace

FileNode::~FileNode() {
  for (auto rest = std::move(next); rest;) rest = std::move(rest->next);
}

bool NodeList::empty() const {
  if (kind_ == Kind::following) return nodes_.empty();
  return std::none_of(nodes_.begin(), nodes_.end(), [this](const FileNode* node) {
    const auto* chains = chainsOf(registry_, node);
    return chains && !chains->empty();
  });
}

std::size_t NodeList::size() const {
  if (kind_ == Kind::following) return nodes_.size();
  std::size_t size = 0;
  for (const FileNode* node : nodes_) {
    if (const auto* chains = chainsOf(registry_, node)) size += chains->size();
  }
  return size;
}

FileNode* NodeList::operator[](std::size_t index) const {
  if (kind_ == Kind::following) {
    const FileNode* node = nodes_.at(index);
    return node ? node->next.get() : nullptr;
  }
  for (const FileNode* node : nodes_) {
    const auto* chains = chainsOf(registry_, node);
    if (!chains) continue;
    if (index < chains->size()) return (*chains)[index].get();
    index -= chains->size();
  }
  throw std::out_of_range("no such node in the list");
}

NodeList::operator std::vector<FileNode*>() const {
  std::vector<FileNode*> result;
  for (const FileNode* node : nodes_) {
    if (kind_ == Kind::following) {
      result.push_back(node ? node->next.get() : nullptr);
    } else if (const auto* chains = chainsOf(registry_, node)) {
      for (const auto& head : *chains) result.push_back(head.get());
    }
  }
  return result;
}

std::unique_ptr<Context> CreateContext(std::shared_ptr<Registry> registry) {
  auto context = std::make_unique<Context>();
  context->registry = std::move(registry);
  return context;
}

std::unique_ptr<FileNode> CreateNewFileNode(const unsigned long& contentNumber, int storageId,
                                            unsigned long first, unsigned long second,
                                            std::unique_ptr<FileNode> next) {
  auto node = std::make_unique<FileNode>();
  node->contentNumber = contentNumber;
  node->storageId = storageId;
  node->first = first;
  node->second = second;
  node->next = std::move(next);
  node->chainKey = contentNumber;
  return node;
}

void AppendToFile(FileNode*& last, std::unique_ptr<FileNode> node) {
  if (!last || !node) throw std::invalid_argument("no node to append, or none to append to");
  FileNode* end = last;
  while (end->next) end = end->next.get();
  // A node that was made with a next one leaves that one its own key.
  node->chainKey = last->chainKey;
  end->next = std::move(node);
  last = end->next.get();
}

void RegisterNewFiles(Registry& registry, std::unique_ptr<FileNode>& node) {
  if (!node) throw std::invalid_argument("no node to register");
  registry[node->contentNumber].push_back(std::move(node));
}

std::vector<FileNode*> UpdateAllDuplicationCandidatesWithFirstBatch(
    Registry& registry, const unsigned long& contentNumber) {
  std::vector<FileNode*> heads;
  const auto found = registry.find(contentNumber);
  if (found == registry.end()) return heads;
  heads.reserve(found->second.size());
  for (const auto& head : found->second) heads.push_back(head.get());
  return heads;
}

void UpdateAllDuplicationCandidates(std::vector<FileNode*>& candidates,
                                    const unsigned long& contentNumber) {
  candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                  [&](const FileNode* node) {
                                    return !node || node->contentNumber != contentNumber;
                                  }),
                   candidates.end());
}

void progressToNextNodeForAllCandidates(std::vector<FileNode*>& candidates,
                                        std::vector<FileNode*>& previous) {
  previous = candidates;
  for (FileNode*& node : candidates) node = node ? node->next.get() : nullptr;
}

std::unique_ptr<FileNode> CopyWithModification(FileNode* begin, FileNode* end,
                                               std::function<void(FileNode*)> modify) {
  std::unique_ptr<FileNode> head;
  std::unique_ptr<FileNode>* place = &head;
  for (const FileNode* node = begin; node; node = node->next.get()) {
    *place = CreateNewFileNode(node->contentNumber, node->storageId, node->first, node->second);
    (*place)->chainKey = begin->contentNumber;
    modify(place->get());
    if (node == end) break;
    place = &(*place)->next;
  }
  return head;
}

void EliminateRedundancy(Context* context, const unsigned long& contentNumber,
                         const StartChain& startChain, const ExtendChain& extendChain,
                         const ReuseChains& reuseChains) {
  if (!context || !context->registry) {
    throw std::invalid_argument("Context is empty or invalid!");
  }
  Registry& registry = *context->registry;
  ChainFollower* const follower = context->follower.get();
  if (!context->candidates) {
    context->candidates = std::make_unique<std::vector<FileNode*>>(
        follower ? follower->begin(registry, contentNumber)
                 : UpdateAllDuplicationCandidatesWithFirstBatch(registry, contentNumber));
    context->previous = std::make_unique<std::vector<FileNode*>>();
  } else {
    UpdateAllDuplicationCandidates(*context->candidates, contentNumber);
    if (follower && !context->current && context->candidates->empty()) {
      *context->candidates = follower->findNext(contentNumber);
    }
  }
  std::vector<FileNode*>& candidates = *context->candidates;
  std::vector<FileNode*>& previous = *context->previous;

  if (context->current) {
    auto node = extendChain(context->current);
    if (node && *node) {
      AppendToFile(context->current, *std::move(node));
      if (follower) follower->grow();
    }
  } else if (candidates.empty()) {
    auto node = startChain(NodeList(previous, registry, NodeList::Kind::heads),
                           NodeList(previous, registry, NodeList::Kind::following));
    if (node && *node) {
      context->current = node->get();
      RegisterNewFiles(registry, *node);
      if (follower) follower->own(registry, *context->current);
    }
  } else {
    reuseChains(NodeList(candidates, registry, NodeList::Kind::heads));
    if (follower) follower->advance();
  }
  progressToNextNodeForAllCandidates(candidates, previous);
}

}  // namespace kyr::parquet::RedundancyEliminator
