#include "streaming/ChainTree.h"

#include <algorithm>
#include <utility>

namespace kyr::parquet::RedundancyEliminator {

namespace {

// Whether a signal that repeated chunks reached the end of a chain at any time. What the chain got
// later does not count.
bool overtook(const std::vector<LengthAt>& signal, const std::vector<LengthAt>& chain) {
  auto length = chain.begin();
  for (const LengthAt& repeated : signal) {
    while (length + 1 != chain.end() && (length + 1)->time <= repeated.time) ++length;
    if (repeated.length >= length->length) return true;
  }
  return false;
}

}  // namespace

void ChainTree::add(const std::vector<std::unique_ptr<FileNode>>& heads) {
  if (chains_.size() == heads.size()) return;
  moveTime();
  while (chains_.size() < heads.size()) {
    const std::size_t index = chains_.size();
    Chain& chain = chains_.emplace_back();
    chain.head = heads[index].get();
    for (const FileNode* node = chain.head; node; node = node->next.get()) addNode(chain, index);
  }
}

FileNode* ChainTree::node(std::size_t chain, std::size_t place) const {
  FileNode* node = chains_[chain].head;
  while (--place > 0) node = node->next.get();
  return node;
}

std::optional<std::size_t> ChainTree::findAfter(std::size_t chain, std::size_t end,
                                                std::size_t equal, unsigned long contentNumber,
                                                const std::vector<LengthAt>& history) {
  if (chain + 1 >= end) return std::nullopt;
  for (const std::size_t each : std::exchange(grown_, {})) place(each);
  const Branch* const branch = next(chain, equal, contentNumber);
  if (!branch) return std::nullopt;
  const auto& chains = branch->chains;
  for (auto each = std::upper_bound(chains.begin(), chains.end(), chain);
       each != chains.end() && *each < end; ++each) {
    if (!overtook(history, chains_[*each].lengths)) return *each;
  }
  return std::nullopt;
}

// The branch of the chains that are equal to \p chain in \p equal chunks and go on with
// \p contentNumber. Some may end before.
const ChainTree::Branch* ChainTree::next(std::size_t chain, std::size_t equal,
                                         unsigned long contentNumber) const {
  const Branch* branch = chains_[chain].branch;
  while (branch->begin > equal) branch = branch->parent;
  if (branch->end == equal) {
    const auto child = branch->children.find(contentNumber);
    return child == branch->children.end() ? nullptr : child->second;
  }
  const FileNode* node = branch->first;
  for (std::size_t place = branch->begin; place <= equal; ++place) node = node->next.get();
  return node->contentNumber == contentNumber ? branch : nullptr;
}

ChainTree::Branch* ChainTree::addBranch(Branch* parent, const FileNode* first, std::size_t begin) {
  branches_.push_back(std::make_unique<Branch>(Branch{parent, begin, begin, first, {}, {}}));
  return branches_.back().get();
}

void ChainTree::place(std::size_t index) {
  Chain& chain = chains_[index];
  FileNode* next = chain.last ? chain.last->next.get() : chain.head;
  if (!chain.branch) {
    if (branches_.empty()) addBranch(nullptr, next, 1);
    Branch& root = *branches_.front();
    root.chains.insert(std::upper_bound(root.chains.begin(), root.chains.end(), index), index);
    chain.branch = &root;
    chain.last = next;
    chain.placed = 1;
    next = next->next.get();
  }
  while (next) {
    Branch& branch = *chain.branch;
    if (chain.placed == branch.end) {
      if (!leave(index, next)) return;
    } else {
      const FileNode* expected = branch.first;
      for (std::size_t at = branch.begin; at <= chain.placed; ++at) expected = expected->next.get();
      for (; next && chain.placed < branch.end && next->contentNumber == expected->contentNumber;
           next = next->next.get(), expected = expected->next.get()) {
        chain.last = next;
        ++chain.placed;
      }
      if (next && chain.placed < branch.end) split(branch, chain.placed);
      continue;
    }
    next = chain.last->next.get();
  }
}

bool ChainTree::leave(std::size_t index, FileNode* next) {
  Chain& chain = chains_[index];
  if (chain.branch->chains.size() == 1 && chain.branch->children.empty()) {
    finish(chain, next);
    return false;
  }
  Branch*& child = chain.branch->children[next->contentNumber];
  const bool isNew = !child;
  if (isNew) child = addBranch(chain.branch, next, chain.placed + 1);
  chain.branch = child;
  auto& chains = child->chains;
  chains.insert(std::upper_bound(chains.begin(), chains.end(), index), index);
  chain.last = next;
  ++chain.placed;
  if (isNew) finish(chain, next->next.get());
  return !isNew;
}

void ChainTree::finish(Chain& chain, FileNode* next) {
  for (; next; next = next->next.get()) {
    chain.last = next;
    ++chain.placed;
  }
  chain.branch->end = chain.placed;
}

// The chunks after place \p end become a branch of their own.
void ChainTree::split(Branch& branch, std::size_t end) {
  const FileNode* first = branch.first;
  for (std::size_t place = branch.begin; place <= end; ++place) first = first->next.get();
  Branch* const rest = addBranch(&branch, first, end + 1);
  rest->end = std::exchange(branch.end, end);
  rest->children = std::exchange(branch.children, {{first->contentNumber, rest}});
  for (auto& child : rest->children) child.second->parent = rest;
  for (const std::size_t each : branch.chains) {
    Chain& chain = chains_[each];
    if (chain.placed <= end) continue;
    rest->chains.push_back(each);
    if (chain.branch == &branch) chain.branch = rest;
  }
}

std::vector<FileNode*> ChainFollower::begin(const Registry& registry, unsigned long contentNumber) {
  const auto found = registry.find(contentNumber);
  if (found == registry.end() || found->second.empty()) return {};
  tree_ = &index_->tree(contentNumber);
  tree_->add(found->second);
  end_ = tree_->size();
  return {found->second.front().get()};
}

std::vector<FileNode*> ChainFollower::findNext(unsigned long contentNumber) {
  if (chain_ >= end_) return {};
  const auto found = tree_->findAfter(chain_, end_, repeated_, contentNumber, history_);
  chain_ = found.value_or(end_);
  if (!found) return {};
  return {tree_->node(chain_, repeated_ + 1)};
}

void ChainFollower::own(const Registry& registry, const FileNode& head) {
  const auto& heads = registry.at(head.contentNumber);
  tree_ = &index_->tree(head.contentNumber);
  tree_->add(heads);
  chain_ = heads.size() - 1;
  history_ = std::vector<LengthAt>();  // {} would keep the memory
}

std::unique_ptr<Context> createFollowingContext(std::shared_ptr<Registry> registry,
                                                std::shared_ptr<ChainIndex> index) {
  auto context = CreateContext(std::move(registry));
  if (index) context->follower = std::make_shared<ChainFollower>(std::move(index));
  return context;
}

}  // namespace kyr::parquet::RedundancyEliminator
