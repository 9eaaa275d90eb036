#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "safe/PoolReplay.h"

// Long random sequences of operations on a safe pool and on a plain model of it: every answer is
// compared. KYR_MODEL_SEQUENCES sets how many sequences, KYR_MODEL_SEED runs a single one, and
// KYR_FAULT_SEQUENCES sets how many are run with each of their calls failing in turn.

namespace kyr::test::model {
namespace {

std::vector<Op> sequenceOf(unsigned seed, std::size_t length) {
  std::mt19937 random(seed);
  const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
  const int first = static_cast<int>(pick(std::size(kKinds)) * 4);
  const unsigned contents = 1 + pick(4);
  std::vector<Op> ops;
  for (std::size_t i = 0; i < length; ++i) {
    Op op{Op::read, first + static_cast<int>(pick(5)), pick(1000), pick(1000), pick(contents)};
    if (pick(8) == 0) op.signal += kWhole;
    const unsigned what = pick(100);
    if (what < 30)
      op.what = Op::time;
    else if (what < 66)
      op.what = Op::data;
    else if (what < 70)
      op.what = Op::finish;
    else if (what < 74)
      op.what = Op::finishPart;
    else if (what < 78)
      op.what = Op::flush;
    else if (what < 80)
      op.what = Op::flushAll;
    else if (what < 82)
      op.what = Op::reset;
    else if (what < 84)
      op.what = Op::drop;
    else if (what < 86)
      op.what = Op::batch;
    else if (what < 87)
      op.what = Op::takeOver;
    if (op.signal >= kWhole && pick(2) == 0) op.what = Op::whole;
    if (op.what == Op::read) op.a = pick(60), op.b = pick(60);
    ops.push_back(op);
  }
  return ops;
}

// Leaves out what is not needed for the sequence to fail.
std::vector<Op> shrunk(std::vector<Op> ops, std::size_t batchRows) {
  for (std::size_t piece = ops.size() / 2; piece > 0; piece /= 2) {
    for (std::size_t at = 0; at + piece <= ops.size();) {
      std::vector<Op> fewer = ops;
      fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(at),
                  fewer.begin() + static_cast<std::ptrdiff_t>(at + piece));
      if (Replay(batchRows).play(fewer)) {
        ops = std::move(fewer);
      } else {
        at += piece;
      }
    }
  }
  return ops;
}

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

TEST(SafePoolModel, EveryAnswerIsThatOfThePlainModel) {
  const unsigned first = numberFrom("KYR_MODEL_SEED", 1);
  const unsigned count = std::getenv("KYR_MODEL_SEED") ? 1 : numberFrom("KYR_MODEL_SEQUENCES", 150);
  for (unsigned seed = first; seed < first + count; ++seed) {
    const std::size_t batchRows = seed % 4 == 0 ? 65536 : 1 + seed % 11;
    const std::vector<Op> ops = sequenceOf(seed, 40 + seed % 300);
    if (!Replay(batchRows).play(ops)) continue;
    const std::vector<Op> few = shrunk(ops, batchRows);
    std::string text;
    for (const Op& op : few) text += "\n  " + describe(op);
    FAIL() << "seed " << seed << ", batches of " << batchRows << ": "
           << Replay(batchRows).play(few).value_or("passes alone") << text;
  }
}

// The n-th call of the system fails, for n = 1, 2, 3, ... until there are no more.
TEST(SafePoolModel, WhateverCallFailsNothingIsLostAndTheSameCallSucceedsAfterwards) {
  for (unsigned seed = 1; seed <= numberFrom("KYR_FAULT_SEQUENCES", 2); ++seed) {
    const std::vector<Op> ops = sequenceOf(seed * 5, seed % 5 == 1 ? 30 : 60);
    int failAt = 1;
    for (bool isReached = true; isReached; ++failAt) {
      Replay replay(1 + seed % 5, failAt, failAt % 3 == 0 ? EIO : ENOSPC);
      const auto failure = replay.play(ops);
      ASSERT_FALSE(failure) << "seed " << seed << ", call " << failAt << ": " << *failure;
      isReached = replay.hasFailed();
    }
    EXPECT_GT(failAt, 10);
  }
}

}  // namespace
}  // namespace kyr::test::model
