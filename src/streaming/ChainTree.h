#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "kyr/parquet/RedundancyEliminator.h"

namespace kyr::parquet::RedundancyEliminator {

/// How long something was, and when it got so long. Time counts how often growth followed upon
/// repetition in a ChainTree.
struct LengthAt {
  std::uint64_t time;
  std::size_t length;
};

/// All chains that begin with one content, in the order of the registry, as a tree of the chunks in
/// which they are equal.
///
/// It tells a signal that repeated a chain which other chain it repeats, too, without a look at
/// each of them. A chain is brought into the tree when such a question is asked. Until then it only
/// counts its nodes.
class ChainTree {
 public:
  ChainTree() = default;
  ChainTree(const ChainTree&) = delete;
  ChainTree& operator=(const ChainTree&) = delete;

  /// Adds the chains in \p heads that are new.
  void add(const std::vector<std::unique_ptr<FileNode>>& heads);
  std::size_t size() const { return chains_.size(); }

  /// The chain got one more node.
  void grow(std::size_t chain) {
    moveTime();
    addNode(chains_[chain], chain);
  }

  /// A signal repeats \p length chunks, after the repetition \p history. Growth from now on is
  /// later than that.
  void repeat(std::size_t length, std::vector<LengthAt>& history) {
    repeated_ = true;
    note(history, length);
  }

  /// The first chain after \p chain and before \p end that is equal to it in \p equal chunks, goes
  /// on with \p contentNumber, and whose end the signal of \p history never reached.
  std::optional<std::size_t> findAfter(std::size_t chain, std::size_t end, std::size_t equal,
                                       unsigned long contentNumber,
                                       const std::vector<LengthAt>& history);
  /// The node of a chain by its place, from 1.
  FileNode* node(std::size_t chain, std::size_t place) const;

 private:
  // Chunks in which some chains are equal, from one place to another.
  struct Branch {
    Branch* parent;
    std::size_t begin;
    std::size_t end;
    const FileNode* first;            // in one of the chains that have the whole branch
    std::vector<std::size_t> chains;  // that have the first chunk, in ascending order
    std::unordered_map<unsigned long, Branch*> children;
  };

  struct Chain {
    FileNode* head;
    std::vector<LengthAt> lengths;
    Branch* branch = nullptr;  // that holds its last node which is in the tree
    FileNode* last = nullptr;  // that node
    std::size_t placed = 0;    // nodes in the tree
  };

  // What happens at one time: chains grow first, then signals repeat.
  void moveTime() {
    if (repeated_) ++time_;
    repeated_ = false;
  }
  void note(std::vector<LengthAt>& history, std::size_t length) const {
    if (history.empty() || history.back().time != time_) {
      history.push_back({time_, length});
    } else {
      history.back().length = length;
    }
  }
  void addNode(Chain& chain, std::size_t index) {
    const std::size_t length = chain.lengths.empty() ? 0 : chain.lengths.back().length;
    if (length == chain.placed) grown_.push_back(index);
    note(chain.lengths, length + 1);
  }

  void place(std::size_t chain);
  Branch* addBranch(Branch* parent, const FileNode* first, std::size_t begin);
  // Follows a chain whose nodes are at the end of a branch. False if all of its nodes are placed.
  bool leave(std::size_t chain, FileNode* next);
  // Places all other nodes of the chain in its branch, which ends with them.
  void finish(Chain& chain, FileNode* next);
  void split(Branch& branch, std::size_t end);
  const Branch* next(std::size_t chain, std::size_t equal, unsigned long contentNumber) const;

  std::uint64_t time_ = 0;
  bool repeated_ = false;
  std::vector<Chain> chains_;
  std::vector<std::unique_ptr<Branch>> branches_;  // the first one is the root
  std::vector<std::size_t> grown_;                 // chains with nodes that are not in the tree
};

/// The chains of all signals of a pool, by their first chunks.
class ChainIndex {
 public:
  ChainTree& tree(unsigned long chainKey) { return trees_[chainKey]; }

 private:
  std::unordered_map<unsigned long, ChainTree> trees_;
};

/// Where a part of a signal stands among the chains: either it repeats some, of which the context
/// lists only the first one, or it extends its own.
class ChainFollower {
 public:
  explicit ChainFollower(std::shared_ptr<ChainIndex> index) : index_(std::move(index)) {}

  /// Begins with the chains of the registry that begin with \p contentNumber, and returns the
  /// first of them.
  std::vector<FileNode*> begin(const Registry& registry, unsigned long contentNumber);
  /// The node of the next chain that goes on with \p contentNumber, once the present one does not.
  /// Empty if there is none.
  std::vector<FileNode*> findNext(unsigned long contentNumber);
  /// The part repeated one more chunk.
  void advance() {
    ++repeated_;
    // Without a chain that may be the next one, nobody asks for the history.
    if (chain_ + 1 < end_) tree_->repeat(repeated_, history_);
  }

  /// The part owns the last chain that is registered, which begins with \p head.
  void own(const Registry& registry, const FileNode& head);
  void grow() { tree_->grow(chain_); }

 private:
  std::shared_ptr<ChainIndex> index_;
  ChainTree* tree_ = nullptr;
  std::size_t chain_ = 0;
  std::size_t end_ = 0;  // chains that were there at the first chunk
  std::size_t repeated_ = 0;
  std::vector<LengthAt> history_;
};

/// A context that lists only the first of the chains that match. All contexts of a registry share
/// the index.
std::unique_ptr<Context> createFollowingContext(std::shared_ptr<Registry> registry,
                                                std::shared_ptr<ChainIndex> index);

}  // namespace kyr::parquet::RedundancyEliminator
