#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <string>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "support/FaultyDisk.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

// Long random sequences of operations on a safe pool and on a plain model of it: every answer is
// compared. KYR_MODEL_SEQUENCES sets how many sequences, KYR_MODEL_SEED runs a single one, and
// KYR_FAULT_SEQUENCES sets how many are run with each of their calls failing in turn.

namespace kyr::parquet {
namespace {

using Shape = std::vector<std::size_t>;
using Part = StreamableSignal::SignalPart;

struct Kind {
  KYRSignalCategory category;
  KYRSignalDataType type;
  std::size_t width;
};

// All data types and categories.
constexpr Kind kKinds[] = {
    {Scalar, Double, 8},    {Scalar, Single, 4},        {Scalar, Int8, 1},
    {Scalar, UInt8, 1},     {Scalar, Int16, 2},         {Scalar, UInt16, 2},
    {Scalar, Int32, 4},     {Scalar, UInt32, 4},        {Scalar, Int64, 8},
    {Scalar, UInt64, 8},    {Scalar, UInt64Alt, 8},     {Scalar, UInt32Alt, 4},
    {Scalar, Boolean, 1},   {Scalar, ByteString, 1},    {Scalar, Binary, 1},
    {FixedDim, UInt16, 2},  {FixedDim, Double, 8},      {FixedDim, Binary, 1},
    {VarDim, Double, 8},    {VarDim, Int32, 4},         {VarDim, UInt8, 1},
    {VarDim, Binary, 1},    {Bus, Binary, 1},           {Bus, ByteString, 1},
    {VarDimBus, Binary, 1}, {VarDimBus, ByteString, 1},
};

struct Row {
  std::string bytes;
  Shape shape;  // of a variable-dimension row
  friend bool operator==(const Row& a, const Row& b) {
    return a.bytes == b.bytes && a.shape == b.shape;
  }
};
using Rows = std::vector<Row>;

struct Op {
  enum What { time, data, finish, finishPart, flush, flushAll, read, reset, drop, whole, batch };
  What what;
  int signal;
  unsigned a;
  unsigned b;
  unsigned c;
};

std::string describe(const Op& op) {
  static const char* const kNames[] = {"time", "data",  "finish", "finishPart", "flush", "flushAll",
                                       "read", "reset", "drop",   "whole",      "batch"};
  return std::string(kNames[op.what]) + "(" + std::to_string(op.signal) + ", " +
         std::to_string(op.a) + ", " + std::to_string(op.b) + ", " + std::to_string(op.c) + ")";
}

const Kind& kindOf(int signal) {
  // Neighbours have the same kind, so that they can share.
  return kKinds[static_cast<std::size_t>(signal / 4) % std::size(kKinds)];
}

bool isVariable(const Kind& kind) { return kind.category == VarDim || kind.category == VarDimBus; }
bool isBlob(const Kind& kind) { return kind.type == Binary || kind.type == ByteString; }

// Row number \p row of a content. Contents are equal up to a row that depends on their number.
Row rowOf(const Kind& kind, unsigned content, std::uint64_t row) {
  const bool differs = row >= content * 3;
  const auto seed = static_cast<unsigned>(row * 7 + (differs ? content * 1000 : 0));
  std::size_t elements = 1;
  Row result;
  if (kind.category == FixedDim) elements = 4;
  if (isBlob(kind)) elements = seed % 5;
  if (isVariable(kind)) {
    result.shape = {seed % 3, 1 + seed % 2};
    if (!isBlob(kind)) elements = result.shape[0] * result.shape[1];
  }
  for (std::size_t i = 0; i < elements * kind.width; ++i) {
    result.bytes.push_back(static_cast<char>((seed * 31 + i * (differs ? 3 : 1)) % 251));
  }
  return result;
}

struct Chunk {
  std::string bytes;
  std::vector<Shape> dims;
  std::vector<int> sizes;
};

Chunk chunkOf(const Kind& kind, const Rows& rows) {
  Chunk chunk;
  for (const Row& row : rows) {
    chunk.bytes += row.bytes;
    if (isVariable(kind)) chunk.dims.push_back(row.shape);
    if (isBlob(kind)) chunk.sizes.push_back(static_cast<int>(row.bytes.size()));
  }
  if (kind.category == FixedDim && !isBlob(kind)) chunk.dims = {{2, 2}};
  return chunk;
}

// What a read gives, as rows.
Rows rowsOf(const Kind& kind, const std::vector<char>& bytes, const std::vector<Shape>& dims,
            const std::vector<int>& sizes) {
  Rows rows;
  std::size_t at = 0;
  const bool isFlat = sizes.empty();
  const std::size_t count = isFlat ? bytes.size() / kind.width : sizes.size();
  for (std::size_t i = 0; i < count; ++i) {
    Row row;
    const std::size_t size = (isFlat ? 1 : static_cast<std::size_t>(sizes[i])) * kind.width;
    row.bytes.assign(bytes.data() + at, size);
    at += size;
    if (isVariable(kind)) row.shape = dims.at(i);
    rows.push_back(std::move(row));
  }
  return rows;
}

constexpr Kind kTime{Scalar, Double, 8};
constexpr int kWhole = 1000;  // ids from here on are whole signals

struct Model {
  Rows time;
  Rows data;
  bool shortBlobs = false;
};

// A pool beside its model.
class Replay {
 public:
  /// \param failAt  the call of the system that fails, once; 0 for none
  explicit Replay(std::size_t batchRows, int failAt = 0, int error = ENOSPC)
      : failAt_(failAt), error_(error), pool_(dir_.path(), storageOf(batchRows, failAt)) {}

  /// Whether the call that was to fail was reached.
  bool hasFailed() const { return hasFailed_; }

  // What went wrong, if anything did.
  std::optional<std::string> play(const std::vector<Op>& ops) {
    std::size_t number = 0;
    test::faultyDisk::start({failAt_, 1, error_, failAt_ % 2 == 0, /*alsoOpening=*/true});
    try {
      for (const Op& op : ops) {
        apply(op);
        if (!failure_.empty()) return "operation " + std::to_string(number) + ": " + failure_;
        ++number;
      }
      readAll("before the end");
      attempt([&] { pool_.serializeSignalRecords(); });
      test::faultyDisk::stop();
      readAll("after the end");
      if (failure_.empty()) checkSharing();
      held_.clear();
      for (auto& [id, model] : models_) pool_.deleteSignal(id);
      if (failure_.empty() && !dir_.names().empty()) fail("files are left");
    } catch (const std::exception& error) {
      test::faultyDisk::stop();
      return "operation " + std::to_string(number) + " threw: " + error.what();
    }
    return failure_.empty() ? std::nullopt : std::optional<std::string>(failure_);
  }

 private:
  static SafeStorage storageOf(std::size_t batchRows, int failAt) {
    SafeStorage storage;
    storage.batchRows = batchRows;
    // Some contents then are in files, others in memory.
    if (batchRows % 3 == 0) {
      storage.holdBelow = 60;
      storage.holdTotal = 150;
    }
    // Syncing takes long, so it is left to some of the sequences.
    if (failAt > 0 && batchRows == 2) storage.sync = SafeStorage::Sync::flush;
    return storage;
  }

  // A call that fails because of the disk says so, and does the same when it is repeated.
  template <typename Call>
  void attempt(Call&& call) {
    try {
      return call();
    } catch (const std::runtime_error& error) {
      if (failAt_ == 0 || hasFailed_) throw;
      hasFailed_ = true;
      if (std::string(error.what()).find(dir_.path().toNarrow()) == std::string::npos) {
        fail("the error names no file: " + std::string(error.what()));
      }
    }
    call();
  }

  void fail(const std::string& text) {
    if (failure_.empty()) failure_ = text;
  }

  StreamableSignal& signal(int id) {
    auto& held = held_[id];
    if (!held) {
      held = pool_.getStreamableSignal(id);
      held->setDataType(kindOf(id).type);
      held->setCategory(kindOf(id).category);
    }
    return *held;
  }

  void apply(const Op& op) {
    Model& model = models_[op.signal];
    if (op.signal >= kWhole) return applyWhole(op, model);
    StreamableSignal& stream = signal(op.signal);
    switch (op.what) {
      case Op::time: {
        const Rows rows = next(kTime, model.time, op);
        const Chunk chunk = chunkOf(kTime, rows);
        std::vector<double> times(rows.size() + 1);
        std::memcpy(times.data(), chunk.bytes.data(), chunk.bytes.size());
        attempt([&] { stream.appendTime(times.data(), rows.size()); });
        break;
      }
      case Op::data: {
        const Rows rows = next(kindOf(op.signal), model.data, op);
        const Chunk chunk = chunkOf(kindOf(op.signal), rows);
        attempt([&] {
          stream.appendData(chunk.bytes.data(), chunk.bytes.size(), chunk.dims, chunk.sizes);
        });
        break;
      }
      case Op::finish:
        attempt([&] { stream.finish(); });
        break;
      case Op::finishPart:
        attempt([&] { stream.finish(op.a % 2 == 0 ? Part::time : Part::data); });
        break;
      case Op::flush:
        attempt([&] { stream.flush(); });
        break;
      case Op::flushAll:
        attempt([&] { pool_.flush(); });
        break;
      case Op::read:
        read(op.signal, model, op.a, op.b, "read");
        break;
      case Op::reset:
        stream.resetData();
        model = Model();
        break;
      case Op::drop:
        held_.erase(op.signal);
        pool_.deleteSignal(op.signal);
        model = Model();
        break;
      case Op::batch:
        stream.setBufferSize(1 + op.a % 9);
        break;
      case Op::whole:
        break;
    }
  }

  // Rows that follow, of content op.c, as many as op.a says; sometimes more than a batch.
  static Rows next(const Kind& kind, Rows& model, const Op& op) {
    Rows rows;
    const unsigned count = op.b % 8 == 0 ? op.a % 40 : op.a % 5;
    for (unsigned i = 0; i < count; ++i) rows.push_back(rowOf(kind, op.c % 4, model.size() + i));
    model.insert(model.end(), rows.begin(), rows.end());
    return rows;
  }

  void applyWhole(const Op& op, Model& model) {
    const Kind& kind = kindOf(op.signal);
    const auto whole = pool_.getSignal(op.signal);
    whole->setDataType(kind.type);
    whole->setCategory(kind.category);
    if (op.what == Op::drop || op.what == Op::reset) {
      whole->resetData();
      if (op.what == Op::drop) pool_.deleteSignal(op.signal);
      model = Model();
      return;
    }
    if (op.what == Op::whole || op.what == Op::data) {
      Model fresh;
      for (unsigned i = 0; i < op.a % 30; ++i) {
        fresh.time.push_back(rowOf(kTime, op.b % 4, i));
        fresh.data.push_back(rowOf(kind, op.c % 4, i));
      }
      const Chunk time = chunkOf(kTime, fresh.time);
      const Chunk chunk = chunkOf(kind, fresh.data);
      std::vector<double> times(fresh.time.size());
      if (!times.empty()) std::memcpy(times.data(), time.bytes.data(), time.bytes.size());
      const std::vector<char> bytes(chunk.bytes.begin(), chunk.bytes.end());
      std::vector<std::vector<std::size_t>> dims = chunk.dims;
      // A blob is told by its length here only if it is Binary.
      if (kind.type == ByteString) {
        for (const int size : chunk.sizes) dims.push_back({static_cast<std::size_t>(size)});
        if (dims.size() == 1 && dims[0][0] == 0) return;
        if (dims.size() == 1) dims.push_back({0});
        if (dims.size() != chunk.sizes.size()) return;
      }
      if (bytes.empty()) return;
      if (whole->hasData()) {
        EXPECT_THROW(whole->setData(times, bytes, dims, chunk.sizes), std::runtime_error);
        return;
      }
      attempt([&] { whole->setData(times, bytes, dims, chunk.sizes); });
      model = fresh;
      return;
    }
    readWhole(op.signal, model, "read");
  }

  void readWhole(int id, const Model& model, const std::string& when) {
    std::vector<double> time;
    std::vector<char> bytes;
    std::vector<Shape> dims;
    std::vector<int> sizes;
    const auto whole = pool_.getSignal(id);
    attempt([&] { whole->getData(time, bytes, dims, sizes); });
    std::vector<char> timeBytes(time.size() * sizeof(double));
    if (!time.empty()) std::memcpy(timeBytes.data(), time.data(), timeBytes.size());
    compare(model.time, rowsOf(kTime, timeBytes, {}, {}), when + ", time", id);
    compare(model.data, rowsOf(kindOf(id), bytes, dims, sizes), when + ", data", id);
  }

  void compare(const Rows& expected, const Rows& found, const std::string& what, int id) {
    if (expected == found) return;
    const auto differing =
        std::mismatch(expected.begin(), expected.end(), found.begin(), found.end()).first;
    fail(what + " of signal " + std::to_string(id) + ": " + std::to_string(found.size()) +
         " rows, expected " + std::to_string(expected.size()) + ", the first that differs is " +
         std::to_string(differing - expected.begin()));
  }

  void read(int id, const Model& model, std::size_t from, std::size_t count,
            const std::string& when) {
    const auto cut = [&](const Rows& rows) {
      const std::size_t begin = std::min(from, rows.size());
      return Rows(rows.begin() + static_cast<std::ptrdiff_t>(begin),
                  rows.begin() + static_cast<std::ptrdiff_t>(std::min(begin + count, rows.size())));
    };
    std::vector<char> time;
    std::vector<char> bytes;
    std::vector<Shape> dims;
    std::vector<int> sizes;
    StreamableSignal& stream = signal(id);
    attempt([&] { stream.getTime(from, from + count, time); });
    attempt([&] { stream.getData(from, from + count, bytes, dims, sizes); });
    compare(cut(model.time), rowsOf(kTime, time, {}, {}), when + ", time", id);
    compare(cut(model.data), rowsOf(kindOf(id), bytes, dims, sizes), when + ", data", id);
  }

  void readAll(const std::string& when) {
    for (const auto& [id, model] : models_) {
      if (id >= kWhole) {
        readWhole(id, model, when);
      } else {
        read(id, model, 0, 100000, when);
      }
    }
  }

  // Once all is finished, equal contents are in one file and others are not.
  void checkSharing() {
    std::map<int, const Rows*> files;
    std::vector<std::tuple<std::string, const Rows*, int>> contents;
    for (const auto& [id, model] : models_) {
      const auto add = [&](const Rows& rows, int file, const std::string& schema) {
        if (rows.empty()) return;
        for (const auto& [otherSchema, other, otherFile] : contents) {
          if (otherSchema != schema) continue;
          if ((*other == rows) != (otherFile == file)) {
            fail("signal " + std::to_string(id) + (file == otherFile ? " shares " : " repeats ") +
                 "file " + std::to_string(otherFile));
          }
        }
        contents.emplace_back(schema, &rows, file);
      };
      const Kind& kind = kindOf(id);
      const std::string schema = std::to_string(kind.type) + "," + std::to_string(kind.category);
      const std::string timeSchema = std::to_string(Double) + "," + std::to_string(Scalar);
      if (id >= kWhole) {
        const auto whole = pool_.getSignal(id);
        add(model.time, whole->getStorageId(0), timeSchema);
        add(model.data, whole->getStorageId(1), schema);
      } else {
        add(model.time, signal(id).getStorageId(Part::time), timeSchema);
        add(model.data, signal(id).getStorageId(Part::data), schema);
      }
    }
  }

  int failAt_;
  int error_;
  bool hasFailed_ = false;
  test::TempDir dir_;
  SignalPool pool_;
  std::map<int, std::shared_ptr<StreamableSignal>> held_;
  std::map<int, Model> models_;
  std::string failure_;
};

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
    if (op.signal >= kWhole && pick(2) == 0) op.what = Op::whole;
    if (op.what == Op::read) op.a = pick(60), op.b = pick(60);
    ops.push_back(op);
  }
  return ops;
}

TEST(SafePoolModel, ASignalThatWasResetTakesAnotherType) {
  const test::TempDir dir;
  SignalPool pool(dir.path(), SafeStorage());
  const auto signal = pool.getStreamableSignal(1);
  std::vector<char> bytes;
  std::vector<Shape> dims;
  for (const KYRSignalDataType type : {Int8, Double, UInt16, Double}) {
    const std::size_t width = elementWidth(type);
    const std::vector<char> rows(6 * width, static_cast<char>(type));
    signal->setDataType(type);
    signal->setCategory(VarDim);
    signal->appendData(rows.data(), rows.size(), {{2}, {1, 4}}, {});
    signal->getData(0, 9, bytes, dims);
    EXPECT_EQ(bytes, rows);
    signal->setDataType(Int32);
    EXPECT_THROW(signal->appendData(rows.data(), 8, {{1}, {1}}, {}), std::invalid_argument);
    signal->resetData();
    EXPECT_FALSE(signal->hasData());
  }
}

TEST(SafePoolModel, AKeptFileOutlastsTheNextFlushAndThePool) {
  const test::TempDir dir;
  SafeStorage storage;
  storage.keepsFiles = true;
  const double values[] = {1, 2, 3};
  {
    SignalPool pool(dir.path(), storage);
    const auto signal = pool.getStreamableSignal(1);
    signal->appendTime(values, 2);
    signal->finish();
    pool.flush();
    signal->appendTime(&values[2], 1);  // beyond the end of the finished file
    pool.flush();
    EXPECT_THAT(dir.names(), ::testing::ElementsAre("0", "1"));
    pool.flush();
    EXPECT_THAT(dir.names(), ::testing::ElementsAre("1"));
    signal->appendTime(values, 3);
  }
  EXPECT_EQ(test::metadataOf(dir.file("1"))->num_rows(), 6);
}

TEST(SafePool, TimesThatWereReadAreNotKeptWhenTheFileGrows) {
  const test::TempDir dir;
  SafeStorage storage;
  storage.keepsFiles = true;
  SignalPool writer(dir.path(), storage);
  const auto growing = writer.getStreamableSignal(1);
  growing->setDataType(Double);
  growing->setCategory(Scalar);
  SignalPool reader(dir.path(), storage);
  for (std::size_t rows : {4U, 8U}) {
    const std::vector<double> more(4, static_cast<double>(rows));
    const std::vector<double> moreTimes(4, static_cast<double>(rows) / 8);
    growing->appendTime(moreTimes.data(), moreTimes.size());
    growing->appendData(more.data(), more.size() * sizeof(double), {}, {});
    growing->flush();
    if (rows == 4) {
      reader.deserializeSignalRecords(
          R"([{"dataStorageId":[1],"signalId":1,"timeStorageId":[0]}])");
    }
    std::vector<double> times;
    std::vector<char> data;
    std::vector<std::vector<std::size_t>> dimensions;
    const auto signal = reader.getSignal(1);
    signal->setDataType(Double);
    signal->setCategory(Scalar);
    signal->getData(times, data, dimensions);
    EXPECT_EQ(times.size(), rows);
    EXPECT_EQ(data.size(), rows * sizeof(double));
  }
}

TEST(SafePoolModel, AFeatureFlagAsksForItToo) {
  const test::TempDir dir;
  {
    SignalPool pool(dir.path());
    EXPECT_THROW(pool.flush(), std::logic_error);
  }
  FeatureFlag::set("fKYRUseSafeStorage", true);
  SignalPool pool(dir.path());
  FeatureFlag::set("fKYRUseSafeStorage", false);
  const double value = 1;
  const auto signal = pool.getStreamableSignal(1);
  signal->appendTime(&value, 1);
  pool.flush();
  EXPECT_THAT(dir.names(), ::testing::ElementsAre("0"));
  EXPECT_EQ(pool.getSignal(1), nullptr);
  EXPECT_NE(pool.getSignal(2), nullptr);
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
}  // namespace kyr::parquet
