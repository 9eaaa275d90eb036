#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

#include "streaming/ChainTree.h"

namespace kyr::parquet::RedundancyEliminator {
namespace {

std::string name(const FileNode* node) {
  return node ? std::to_string(node->storageId) + ":" + std::to_string(node->contentNumber) : "-";
}

// Signals that use chains as the signals of a pool do.
class Signals {
 public:
  explicit Signals(std::shared_ptr<ChainIndex> index) : index_(std::move(index)) {}

  std::size_t add() {
    contexts_.push_back(createFollowingContext(registry_, index_));
    return contexts_.size() - 1;
  }

  // What happened to the chunk. Without \p mayStart, a signal that repeats nothing starts no chain.
  std::string append(std::size_t signal, unsigned long content, bool mayStart) {
    std::string seen;
    EliminateRedundancy(
        contexts_[signal].get(), content,
        [&](const NodeList& heads, const NodeList& following) {
          seen = "start";
          return start(heads, following, content, mayStart, seen);
        },
        [&](FileNode* current) -> std::optional<std::unique_ptr<FileNode>> {
          seen = "extend " + name(current);
          return CreateNewFileNode(content, current->storageId, 0, 0);
        },
        [&](const NodeList& heads) { seen = "reuse " + name(heads[0]); });
    return seen;
  }

  std::vector<std::string> chains(unsigned long key) const {
    std::vector<std::string> result;
    const auto found = registry_->find(key);
    if (found == registry_->end()) return result;
    for (const auto& head : found->second) {
      std::string& chain = result.emplace_back();
      for (const FileNode* node = head.get(); node; node = node->next.get()) {
        chain += name(node) + " ";
      }
    }
    return result;
  }

 private:
  std::optional<std::unique_ptr<FileNode>> start(const NodeList& heads, const NodeList& following,
                                                 unsigned long content, bool mayStart,
                                                 std::string& seen) {
    auto node = CreateNewFileNode(content, nextFile_, 0, 0);
    if (heads.empty()) {
      if (!mayStart) return std::nullopt;
      ++nextFile_;
      return node;
    }
    seen += " " + name(heads[0]) + " " + name(following[0]);
    const int file = nextFile_++;
    auto copy = CopyWithModification(heads[0], following[0],
                                     [file](FileNode* made) { made->storageId = file; });
    FileNode* last = copy.get();
    AppendToFile(last, std::move(node));
    return copy;
  }

  std::shared_ptr<ChainIndex> index_;
  std::shared_ptr<Registry> registry_ = std::make_shared<Registry>();
  std::vector<std::unique_ptr<Context>> contexts_;
  int nextFile_ = 0;
};

struct Habit {
  const char* name;
  unsigned long contents;  // as many different chunks
  double surprise;         // probability of a chunk that is not the one that others have there
  std::size_t active;      // signals that append in turns
  std::size_t run;         // chunks at most that one appends before the next does
  std::size_t length;      // chunks at most of a signal
};

class Followed : public ::testing::TestWithParam<Habit> {};

// Whoever looks at all candidates after each chunk finds the same.
TEST_P(Followed, ChainsAreThoseOfALookAtEachCandidate) {
  const Habit habit = GetParam();
  constexpr unsigned long kEnd = 99;
  for (unsigned seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t end) { return random() % end; };
    const auto happens = [&random](double chance) {
      return std::uniform_real_distribution<>()(random) < chance;
    };
    Signals each(nullptr);
    Signals tree(std::make_shared<ChainIndex>());
    struct Active {
      std::size_t signal;
      std::size_t left;
      std::size_t appended;
    };
    std::vector<Active> active;
    for (int turn = 0; turn < 400; ++turn) {
      while (active.size() < habit.active) {
        active.push_back({each.add(), 1 + below(habit.length), 0});
        tree.add();
      }
      Active& one = active[below(active.size())];
      for (std::size_t run = 1 + below(habit.run); run > 0 && one.left > 0; --run, --one.left) {
        const bool isLast = one.left == 1 && happens(0.8);
        const unsigned long usual = one.appended / 3 % habit.contents;
        const unsigned long content = isLast                    ? kEnd
                                      : happens(habit.surprise) ? below(habit.contents)
                                                                : usual;
        ++one.appended;
        ASSERT_EQ(tree.append(one.signal, content, !isLast),
                  each.append(one.signal, content, !isLast))
            << "seed " << seed << ", turn " << turn << ", signal " << one.signal;
      }
      if (one.left == 0) std::swap(one, active.back()), active.pop_back();
    }
    for (unsigned long key = 0; key < habit.contents; ++key) {
      ASSERT_EQ(tree.chains(key), each.chains(key)) << "seed " << seed;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Habits, Followed,
                         ::testing::Values(Habit{"OneByOne", 3, 0.02, 1, 40, 40},
                                           Habit{"OneByOneAnything", 2, 0.5, 1, 12, 12},
                                           Habit{"InTurns", 3, 0.02, 6, 1, 30},
                                           Habit{"InRuns", 3, 0.05, 5, 8, 30},
                                           Habit{"InRunsAnything", 2, 0.3, 8, 6, 20},
                                           Habit{"ManyShort", 2, 0.3, 12, 2, 4}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace kyr::parquet::RedundancyEliminator
