#include <gmock/gmock.h>
#include <pthread.h>

#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include "kyr/parquet/RedundancyEliminator.h"

namespace kyr::parquet::RedundancyEliminator {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Nodes = std::vector<FileNode*>;

// The file and the content of a node as text, or "-" for none.
std::string name(const FileNode* node) {
  return node ? std::to_string(node->storageId) + ":" + std::to_string(node->contentNumber) : "-";
}

std::string names(const Nodes& nodes) {
  std::string result;
  for (const FileNode* node : nodes) result += " " + name(node);
  return "{" + (result.empty() ? result : result.substr(1)) + "}";
}

std::string chain(const FileNode* node) {
  std::string result;
  for (; node; node = node->next.get()) result += name(node) + " ";
  return result;
}

// Signals that append chunks, given by their content numbers. Each chain gets a new file.
class Redundancy : public ::testing::Test {
 protected:
  std::unique_ptr<Context> signal() const { return CreateContext(registry); }

  // The callbacks that were called, with their arguments.
  std::string append(Context& context, unsigned long content) {
    const Nodes matched = context.previous ? *context.previous : Nodes();
    std::string seen;
    EliminateRedundancy(
        &context, content,
        [&](const NodeList& heads,
            const NodeList& next) -> std::optional<std::unique_ptr<FileNode>> {
          expectList(heads, headsOf(matched));
          Nodes following;
          for (const FileNode* node : matched) following.push_back(node->next.get());
          expectList(next, following);
          seen = "start " + names(heads) + " " + names(next);
          const int file = nextFile++;
          auto node = CreateNewFileNode(content, file, 0, 0);
          if (heads.empty()) return node;
          auto copy = CopyWithModification(heads[0], next[0],
                                           [file](FileNode* made) { made->storageId = file; });
          FileNode* last = copy.get();
          AppendToFile(last, std::move(node));
          return copy;
        },
        [&](FileNode* current) -> std::optional<std::unique_ptr<FileNode>> {
          seen = "extend " + name(current);
          return CreateNewFileNode(content, current->storageId, 0, 0);
        },
        [&](const NodeList& heads) {
          expectList(heads, headsOf(*context.candidates));
          seen = "reuse " + names(heads);
        });
    return seen;
  }

  std::vector<std::string> append(Context& context, const std::vector<unsigned long>& contents) {
    std::vector<std::string> seen;
    seen.reserve(contents.size());
    for (const unsigned long content : contents) seen.push_back(append(context, content));
    return seen;
  }

  std::vector<std::string> chains(unsigned long first) const {
    std::vector<std::string> result;
    for (const auto& head : (*registry)[first]) result.push_back(chain(head.get()));
    return result;
  }

  Nodes headsOf(const Nodes& nodes) const {
    Nodes heads;
    for (const FileNode* node : nodes) {
      for (const auto& head : (*registry)[node->chainKey]) heads.push_back(head.get());
    }
    return heads;
  }

  // The entries of the list are those of its vector.
  static void expectList(const NodeList& list, const Nodes& expected) {
    EXPECT_EQ(static_cast<Nodes>(list), expected);
    EXPECT_EQ(list.size(), expected.size());
    EXPECT_EQ(list.empty(), expected.empty());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(list[i], expected[i]);
    EXPECT_THROW(list[expected.size()], std::out_of_range);
  }

  const std::shared_ptr<Registry> registry = std::make_shared<Registry>();
  int nextFile = 0;
};

TEST_F(Redundancy, FirstSignalStartsAChainAndExtendsIt) {
  const auto a = signal();
  EXPECT_THAT(append(*a, {5, 6, 5}), ElementsAre("start {} {}", "extend 0:5", "extend 0:6"));
  EXPECT_THAT(chains(5), ElementsAre("0:5 0:6 0:5 "));
  EXPECT_EQ(registry->size(), 1);
  for (const FileNode* node = (*registry)[5][0].get(); node; node = node->next.get()) {
    EXPECT_EQ(node->chainKey, 5);
  }
}

TEST_F(Redundancy, RepetitionFromTheStartIsReusedAsLongAsItLasts) {
  append(*signal(), {1, 2, 3});
  EXPECT_THAT(append(*signal(), {1, 2, 3}),
              ElementsAre("reuse {0:1}", "reuse {0:1}", "reuse {0:1}"));
  EXPECT_THAT(append(*signal(), {2, 3}), ElementsAre("start {} {}", "extend 1:2"));
  EXPECT_EQ(registry->size(), 2);
}

// The copy of a chain includes the node that did not match. The first extendChain gets the head of
// the chain, because startChain returned it.
TEST_F(Redundancy, DifferenceStartsAChainWithTheCommonPrefix) {
  append(*signal(), {1, 2, 3});
  EXPECT_THAT(
      append(*signal(), {1, 2, 7, 8, 9}),
      ElementsAre("reuse {0:1}", "reuse {0:1}", "start {0:1} {0:3}", "extend 1:1", "extend 1:8"));
  EXPECT_THAT(chains(1), ElementsAre("0:1 0:2 0:3 ", "1:1 1:2 1:3 1:7 1:8 1:9 "));
}

TEST_F(Redundancy, SignalLongerThanItsModelStartsAChainAtTheModelsEnd) {
  append(*signal(), {1, 2});
  EXPECT_THAT(append(*signal(), {1, 2, 3}),
              ElementsAre("reuse {0:1}", "reuse {0:1}", "start {0:1} {-}"));
  EXPECT_THAT(chains(1), ElementsAre("0:1 0:2 ", "1:1 1:2 1:3 "));
}

TEST_F(Redundancy, HeadsAreAllChainsOfTheKeyOnceForEachThatMatched) {
  append(*signal(), {1, 2});
  append(*signal(), {1, 3});  // chain 1: 1 2 3
  const auto both = signal();
  EXPECT_THAT(append(*both, {1, 2, 3, 4}),
              ElementsAre("reuse {0:1 1:1 0:1 1:1}", "reuse {0:1 1:1 0:1 1:1}", "reuse {0:1 1:1}",
                          "start {0:1 1:1} {-}"));
}

TEST_F(Redundancy, CandidatesOnlyNarrow) {
  append(*signal(), {1, 2});
  const auto early = signal();
  append(*early, 1);
  const auto late = signal();
  append(*late, {1, 3});
  append(*late, 4);
  EXPECT_EQ(append(*early, 3), "start {0:1 1:1} {0:2}");  // although 1:3 exists now
}

TEST_F(Redundancy, CallbackThatReturnsNothingLeavesTheChainsAlone) {
  const StartChain noStart = [](const NodeList&, const NodeList&) { return std::nullopt; };
  const StartChain nullStart = [](const NodeList&, const NodeList&) {
    return std::optional(std::unique_ptr<FileNode>());
  };
  const ExtendChain noExtension = [](FileNode*) { return std::nullopt; };
  const auto a = signal();
  EliminateRedundancy(a.get(), 1, noStart, {}, {});
  EliminateRedundancy(a.get(), 2, nullStart, {}, {});
  EXPECT_TRUE(registry->empty());
  EXPECT_EQ(append(*a, 3), "start {} {}");
  EliminateRedundancy(a.get(), 4, {}, noExtension, {});
  EXPECT_EQ(append(*a, 5), "extend 0:3");
  EXPECT_THAT(chains(3), ElementsAre("0:3 0:5 "));
}

TEST_F(Redundancy, FailureKeepsTheMatchesForTheNextAttempt) {
  EXPECT_THAT([] { EliminateRedundancy(nullptr, 1, {}, {}, {}); },
              ThrowsMessage<std::invalid_argument>("Context is empty or invalid!"));
  EXPECT_THAT([] { EliminateRedundancy(CreateContext(nullptr).get(), 1, {}, {}, {}); },
              ThrowsMessage<std::invalid_argument>("Context is empty or invalid!"));
  append(*signal(), {1, 2, 3});
  const auto b = signal();
  append(*b, {1, 2});
  EXPECT_THROW(EliminateRedundancy(b.get(), 9, {}, {}, {}), std::bad_function_call);
  EXPECT_EQ(append(*b, 9), "start {0:1} {0:3}");
  EXPECT_THROW(EliminateRedundancy(b.get(), 9, {}, {}, {}), std::bad_function_call);
  EXPECT_EQ(append(*b, 9), "extend 1:1");
  EXPECT_THROW(EliminateRedundancy(signal().get(), 1, {}, {}, {}), std::bad_function_call);
}

TEST_F(Redundancy, ListsAreWhatVectorsWouldBe) {
  append(*signal(), {1, 2});
  const auto b = signal();
  append(*b, 1);
  std::string seen;
  EliminateRedundancy(b.get(), 3,
                      [&](const Nodes& heads, const Nodes& next) {
                        seen = names(heads) + names(next);
                        return std::nullopt;
                      },
                      {}, {});
  EXPECT_EQ(seen, "{0:1}{0:2}");

  std::mt19937 random(4711);
  std::vector<std::unique_ptr<Context>> signals(20);
  for (auto& each : signals) each = signal();
  for (int i = 0; i < 200; ++i) append(*signals[random() % 20], random() % 3);  // see expectList
  EXPECT_GT(nextFile, 3);
}

TEST(FileNodes, CopyGoesFromBeginToEndOrToTheChainsEnd) {
  auto head = CreateNewFileNode(1, 0, 10, 11);
  FileNode* last = head.get();
  for (const unsigned long content : {2UL, 3UL, 4UL}) {
    AppendToFile(last, CreateNewFileNode(content, 0, content * 10, content * 10 + 1));
  }
  EXPECT_EQ(last->contentNumber, 4);
  FileNode* begin = head->next.get();
  std::string made;
  const auto modify = [&](FileNode* node) {
    made += name(node);
    EXPECT_EQ(node->next, nullptr);
    node->storageId = 7;
    node->first += 1;
  };
  const auto copy = CopyWithModification(begin, begin->next.get(), modify);
  EXPECT_EQ(made, "0:20:3");
  EXPECT_EQ(chain(copy.get()), "7:2 7:3 ");
  for (const FileNode* node : {copy.get(), copy->next.get()}) {
    EXPECT_EQ(node->chainKey, 2);
    EXPECT_EQ(node->first, node->contentNumber * 10 + 1);
    EXPECT_EQ(node->second, node->contentNumber * 10 + 1);
  }
  EXPECT_EQ(chain(head.get()), "0:1 0:2 0:3 0:4 ");
  for (FileNode* end : {static_cast<FileNode*>(nullptr), head.get(), copy.get()}) {
    EXPECT_EQ(chain(CopyWithModification(begin, end, modify).get()), "7:2 7:3 7:4 ");
  }
  EXPECT_EQ(chain(CopyWithModification(begin, begin, modify).get()), "7:2 ");
  EXPECT_EQ(CopyWithModification(nullptr, begin, modify), nullptr);
  EXPECT_THROW(CopyWithModification(begin, nullptr, {}), std::bad_function_call);
}

TEST(FileNodes, AppendingGoesToTheTrueEndAndTakesTheChainsKey) {
  auto head = CreateNewFileNode(1, 0, 0, 1);
  for (const unsigned long content : {2UL, 3UL}) {
    FileNode* last = head.get();
    AppendToFile(last, CreateNewFileNode(content, 0, 0, 1));
    EXPECT_EQ(last->contentNumber, content);
    EXPECT_EQ(last->chainKey, 1);
  }
  EXPECT_EQ(chain(head.get()), "0:1 0:2 0:3 ");
  // A node that is made with a next one leaves that one its own key.
  auto made = CreateNewFileNode(4, 0, 0, 1, CreateNewFileNode(5, 0, 2, 3));
  FileNode* last = made.get();
  AppendToFile(last, CreateNewFileNode(6, 0, 4, 5));
  EXPECT_EQ(chain(made.get()), "0:4 0:5 0:6 ");
  EXPECT_EQ(last->chainKey, 4);
  last = head.get();
  EXPECT_THROW(AppendToFile(last, nullptr), std::invalid_argument);
  FileNode* none = nullptr;
  EXPECT_THROW(AppendToFile(none, CreateNewFileNode(3, 0, 2, 3)), std::invalid_argument);
  std::unique_ptr<FileNode> empty;
  Registry registry;
  EXPECT_THROW(RegisterNewFiles(registry, empty), std::invalid_argument);
  RegisterNewFiles(registry, head);
  EXPECT_EQ(head, nullptr);
  EXPECT_EQ(registry[1].size(), 1);
  EXPECT_EQ(UpdateAllDuplicationCandidatesWithFirstBatch(registry, 1).size(), 1);
  EXPECT_TRUE(UpdateAllDuplicationCandidatesWithFirstBatch(registry, 2).empty());
  EXPECT_EQ(registry.size(), 1);
}

void onSmallStack(void* (*work)(void*), void* argument) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{256} * 1024), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, work, argument), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

TEST(FileNodes, ChainsOfManyThreadsGoOnAndEndInOthers) {
  constexpr unsigned long kNodes = 20'000;
  std::vector<std::unique_ptr<FileNode>> heads(4);
  const auto inThreads = [&](auto&& work) {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < heads.size(); ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
  };
  for (int round = 0; round < 3; ++round) {
    inThreads([&](std::size_t i) {
      heads[i] = CreateNewFileNode(i, static_cast<int>(i), 0, 1);
      FileNode* last = heads[i].get();
      for (unsigned long n = 1; n < kNodes; ++n) {
        AppendToFile(last, CreateNewFileNode(i + n, static_cast<int>(i), n, n + 1));
      }
    });
    inThreads([&](std::size_t i) {
      unsigned long n = 0;
      for (const FileNode* node = heads[i ^ 1U].get(); node; node = node->next.get(), ++n) {
        if (node->contentNumber != (i ^ 1U) + n || node->first != n) break;
      }
      EXPECT_EQ(n, kNodes) << "chain " << (i ^ 1U) << " in round " << round;
      heads[i ^ 1U].reset();
    });
  }
}

TEST(FileNodes, ChainsOfMillionsNeedNeitherStackNorMoreThanLinearTime) {
  onSmallStack(
      [](void*) -> void* {
#ifdef __SANITIZE_ADDRESS__
        constexpr unsigned long kNodes = 1'000'000;
#else
        constexpr unsigned long kNodes = 10'000'000;
#endif
        Registry registry;
        auto head = CreateNewFileNode(0, 0, 0, 1);
        FileNode* last = head.get();
        FileNode* copyFrom = nullptr;
        for (unsigned long i = 1; i < kNodes; ++i) {
          AppendToFile(last, CreateNewFileNode(i, 0, i, i + 1));
          if (i == kNodes / 5 * 4) copyFrom = last;
        }
        unsigned long copied = 0;
        auto copy = CopyWithModification(copyFrom, nullptr, [&](FileNode*) { ++copied; });
        EXPECT_EQ(copied, kNodes / 5);
        RegisterNewFiles(registry, copy);
        RegisterNewFiles(registry, head);
        unsigned long walked = 0;
        for (const FileNode* node = registry[0][0].get(); node; node = node->next.get()) ++walked;
        EXPECT_EQ(walked, kNodes);
        return nullptr;
      },
      nullptr);
}

}  // namespace
}  // namespace kyr::parquet::RedundancyEliminator
