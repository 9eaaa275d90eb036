#include "safe/ContentTree.h"

#include <arrow/type.h>

#include <iterator>
#include <utility>

namespace kyr::parquet {

// The child that differs last takes the place. It equals this content up to there, so that the
// other children differ from it where they differed from this one.
ContentNode::~ContentNode() {
  if (!children_ || children_->nodes.empty()) {
    leavePlaceTo(nullptr);
    return;
  }
  const auto last = std::prev(children_->nodes.end());
  ContentNode& successor = *last->second;
  children_->nodes.erase(last);
  successor.siblings_ = nullptr;
  if (!children_->nodes.empty()) successor.takeChildren(std::move(children_));
  leavePlaceTo(&successor);
}

void ContentNode::leavePlaceTo(ContentNode* successor) noexcept {
  const auto replaceIn = [&](auto& nodes) {
    if (successor == nullptr) {
      nodes.erase(key_);
    } else {
      nodes.find(key_)->second = successor;
    }
  };
  if (roots_ != nullptr) replaceIn(*roots_);
  if (siblings_ != nullptr) replaceIn(siblings_->nodes);
  if (successor == nullptr) return;
  successor->roots_ = roots_;
  successor->siblings_ = siblings_;
  successor->key_ = key_;
}

// The larger list stays, and the nodes of the smaller one move.
void ContentNode::takeChildren(std::unique_ptr<Children> others) noexcept {
  if (!children_) {
    children_ = std::move(others);
  } else {
    if (children_->nodes.size() < others->nodes.size()) children_.swap(others);
    for (const auto& [key, node] : others->nodes) node->siblings_ = children_.get();
    children_->nodes.merge(others->nodes);
  }
  children_->parent = this;
}

void ContentNode::attachTo(ContentRoots& roots, const ContentKey& key) {
  roots[key] = this;
  roots_ = &roots;
  key_ = key;
}

void ContentNode::attachTo(ContentNode& parent, const ContentKey& key) {
  if (!parent.children_) {
    parent.children_ = std::make_unique<Children>();
    parent.children_->parent = &parent;
  }
  parent.children_->nodes[key] = this;
  siblings_ = parent.children_.get();
  key_ = key;
}

Content* ContentNode::child(const ContentKey& key) const {
  if (!children_) return nullptr;
  const auto found = children_->nodes.find(key);
  return found == children_->nodes.end() ? nullptr : &found->second->content_;
}

Content* ContentNode::longerContent() const {
  return siblings_ != nullptr && key_.isEnd() ? &siblings_->parent->content_ : nullptr;
}

Content* ContentNode::parentWith(std::uint64_t row) const {
  return siblings_ != nullptr && row <= key_.row ? &siblings_->parent->content_ : nullptr;
}

ContentRoots& ContentTree::roots(const std::shared_ptr<::arrow::Schema>& schema) {
  ContentRoots*& known = known_[schema];
  if (known == nullptr) known = &roots_[schema->ToString()];
  return *known;
}

}  // namespace kyr::parquet
