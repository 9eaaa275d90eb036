#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "kyr/platform/export.h"

/// \brief Recognises signals that append the same sequence of chunks as an earlier one.
///
/// Every stored chunk is a node; the chunks of one storage file form a chain in append order. While
/// a signal's chunks equal an existing chain from its start, nothing new is stored; at the first
/// chunk that no chain matches, the signal starts a chain of its own and extends it from then on.
namespace kyr::parquet::RedundancyEliminator {

/// \brief One stored chunk. Owns the rest of its chain.
struct KYR_PARQUET_EXPORT FileNode {
  FileNode() = default;
  FileNode(const FileNode&) = delete;
  FileNode& operator=(const FileNode&) = delete;
  /// Destroys the chain node by node: its length does not show on the stack.
  ~FileNode();

  /// Nodes come from slabs, which are given back as a whole.
  static void* operator new(std::size_t size);
  static void operator delete(void* node, std::size_t size) noexcept;

  unsigned long contentNumber = 0;
  int storageId = 0;         ///< file that holds the chunk
  unsigned long first = 0;   ///< first row of the chunk, as the signal that stored it counts rows
  unsigned long second = 0;  ///< row behind the last one
  std::unique_ptr<FileNode> next;
  unsigned long chainKey = 0;  ///< content number of the chain's first node
};

/// \brief First nodes of all chains, by the content number of each.
using Registry = std::unordered_map<unsigned long, std::vector<std::unique_ptr<FileNode>>>;

/// \brief A list of nodes whose entries are found when they are asked for.
///
/// Valid during the callback that gets it. Convert it to a vector to keep it or to walk through it.
class KYR_PARQUET_EXPORT NodeList {
 public:
  enum class Kind {
    heads,     ///< for each node, the first nodes of all chains with its chain key
    following  ///< for each node, the one after it in its chain (null at the end)
  };

  NodeList(const std::vector<FileNode*>& nodes, const Registry& registry, Kind kind)
      : nodes_(nodes), registry_(registry), kind_(kind) {}

  bool empty() const;
  std::size_t size() const;
  /// \throws std::out_of_range beyond the end
  FileNode* operator[](std::size_t index) const;
  operator std::vector<FileNode*>() const;  // NOLINT(google-explicit-constructor): for callbacks

 private:
  const std::vector<FileNode*>& nodes_;
  const Registry& registry_;
  Kind kind_;
};

class ChainFollower;

/// \brief Matching state of one signal part that is being streamed.
struct Context {
  std::shared_ptr<Registry> registry;
  /// For each chain that matches so far, the node that the next chunk must equal (null at its end);
  /// absent before the first chunk.
  std::unique_ptr<std::vector<FileNode*>> candidates;
  std::unique_ptr<std::vector<FileNode*>> previous;  ///< the nodes that the latest chunk matched
  FileNode* current = nullptr;  ///< last node of the signal's own chain, once it has one
  /// Set for the signals of pools, whose lists have only the first of the chains that match.
  std::shared_ptr<ChainFollower> follower;
};

using StartChain = std::function<std::optional<std::unique_ptr<FileNode>>(
    const NodeList& heads, const NodeList& nextNodes)>;
using ExtendChain = std::function<std::optional<std::unique_ptr<FileNode>>(FileNode* current)>;
using ReuseChains = std::function<void(const NodeList& heads)>;

KYR_PARQUET_EXPORT std::unique_ptr<Context> CreateContext(std::shared_ptr<Registry> registry);

/// \brief A node whose chain key is its own content number.
KYR_PARQUET_EXPORT std::unique_ptr<FileNode> CreateNewFileNode(
    const unsigned long& contentNumber, int storageId, unsigned long first, unsigned long second,
    std::unique_ptr<FileNode> next = nullptr);

/// \brief Link \p node behind the last node of the chain, give it the chain key of \p last, and set
/// \p last to it.
///
/// Costs a step for each node from \p last to the end.
/// \throws std::invalid_argument if either is null
KYR_PARQUET_EXPORT void AppendToFile(FileNode*& last, std::unique_ptr<FileNode> node);

/// \brief Add the chain that begins with \p node to the registry, which owns it from then on.
/// \throws std::invalid_argument if the node is null
KYR_PARQUET_EXPORT void RegisterNewFiles(Registry& registry, std::unique_ptr<FileNode>& node);

/// \brief The first nodes of all chains that begin with this content, in registry order.
KYR_PARQUET_EXPORT std::vector<FileNode*> UpdateAllDuplicationCandidatesWithFirstBatch(
    Registry& registry, const unsigned long& contentNumber);

/// \brief Keep, in order, the candidates of this content, and remove all others and null ones.
KYR_PARQUET_EXPORT void UpdateAllDuplicationCandidates(std::vector<FileNode*>& candidates,
                                                       const unsigned long& contentNumber);

/// \brief Remember the candidates in \p previous and step each to its next node.
KYR_PARQUET_EXPORT void progressToNextNodeForAllCandidates(std::vector<FileNode*>& candidates,
                                                           std::vector<FileNode*>& previous);

/// \brief Copy the nodes from \p begin up to and including \p end, or to the chain's end if \p end
/// is null or not after \p begin.
/// \param modify  called on each copy right after it is made
/// \return the first copy; empty if \p begin is null
/// \throws std::bad_function_call if \p modify is empty
KYR_PARQUET_EXPORT std::unique_ptr<FileNode> CopyWithModification(
    FileNode* begin, FileNode* end, std::function<void(FileNode*)> modify);

/// \brief Process one appended chunk. Calls exactly one of the callbacks:
///
/// - \p startChain, if no chain matches. It returns the first node of the signal's own chain. It
///   gets the heads of the chains that matched up to the previous chunk, and the nodes behind those
///   that matched.
/// - \p extendChain, if the signal owns a chain. It returns the node to append to it. \c current is
///   the last node or, right after startChain, the node that startChain returned.
/// - \p reuseChains, if the chunk continues the chains whose heads are given.
///
/// The chains stay as they are if startChain or extendChain returns nothing or a null node.
/// \throws std::invalid_argument "Context is empty or invalid!" for a null context or registry
/// \throws std::bad_function_call if the callback that is due is empty
KYR_PARQUET_EXPORT void EliminateRedundancy(Context* context, const unsigned long& contentNumber,
                                            const StartChain& startChain,
                                            const ExtendChain& extendChain,
                                            const ReuseChains& reuseChains);

}  // namespace kyr::parquet::RedundancyEliminator
