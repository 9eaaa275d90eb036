#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "safe/ModelRows.h"
#include "support/FaultyDisk.h"
#include "support/TempDir.h"

namespace kyr::test::model {

using parquet::SafeStorage;
using parquet::SignalPool;
using parquet::StreamableSignal;
using Part = StreamableSignal::SignalPart;

/// An operation on a pool; \p a, \p b and \p c choose its details.
struct Op {
  enum What {
    time,
    data,
    finish,
    finishPart,
    flush,
    flushAll,
    read,
    reset,
    drop,
    whole,
    batch,
    takeOver
  };
  What what;
  int signal;
  unsigned a;
  unsigned b;
  unsigned c;
};

inline std::string describe(const Op& op) {
  static const char* const kNames[] = {"time",  "data",     "finish", "finishPart",
                                       "flush", "flushAll", "read",   "reset",
                                       "drop",  "whole",    "batch",  "takeOver"};
  return std::string(kNames[op.what]) + "(" + std::to_string(op.signal) + ", " +
         std::to_string(op.a) + ", " + std::to_string(op.b) + ", " + std::to_string(op.c) + ")";
}

/// Signals of this id and larger ones are whole signals.
constexpr int kWhole = 1000;

struct Model {
  Rows time;
  Rows data;
};

/// A pool beside its model.
class Replay {
 public:
  /// \param failAt  the call of the system that fails, once; 0 for none
  explicit Replay(std::size_t batchRows, int failAt = 0, int error = ENOSPC)
      : failAt_(failAt), error_(error), pool_(dir_.path(), storageOf(batchRows, failAt)) {}

  /// Whether the call that was to fail was reached.
  bool hasFailed() const { return hasFailed_; }

  /// What went wrong, if anything did.
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
      handles_.clear();
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
    // Some contents are in files then, and others in memory.
    if (batchRows % 3 == 0) {
      storage.holdBelow = 60;
      storage.holdTotal = 150;
    }
    // Syncing takes long, so it is left to some of the sequences.
    if (failAt > 0 && batchRows == 2) storage.sync = SafeStorage::Sync::flush;
    return storage;
  }

  // A call that fails because of the disk says so, and succeeds when it is repeated.
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
    auto& handle = handles_[id];
    if (!handle) {
      handle = pool_.getStreamableSignal(id);
      handle->setDataType(kindOf(id).type);
      handle->setCategory(kindOf(id).category);
    }
    return *handle;
  }

  void apply(const Op& op) {
    Model& model = models_[op.signal];
    if (op.signal >= kWhole) return applyWhole(op, model);
    StreamableSignal& stream = signal(op.signal);
    switch (op.what) {
      case Op::time: {
        for (const Rows& rows : next(kTime, model.time, op)) {
          const Chunk chunk = chunkOf(kTime, rows);
          std::vector<double> times(rows.size() + 1);
          std::memcpy(times.data(), chunk.bytes.data(), chunk.bytes.size());
          attempt([&] { stream.appendTime(times.data(), rows.size()); });
        }
        break;
      }
      case Op::data: {
        for (const Rows& rows : next(kindOf(op.signal), model.data, op)) {
          const Chunk chunk = chunkOf(kindOf(op.signal), rows);
          attempt([&] {
            stream.appendData(chunk.bytes.data(), chunk.bytes.size(), chunk.dims, chunk.sizes);
          });
        }
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
        handles_.erase(op.signal);
        pool_.deleteSignal(op.signal);
        model = Model();
        break;
      case Op::batch:
        stream.setBufferSize(1 + op.a % 9);
        break;
      case Op::takeOver:
        takeOver();
        break;
      case Op::whole:
        break;
    }
  }

  // Makes the streamable signals anew from their records.
  void takeOver() {
    nlohmann::json records;
    attempt([&] { records = nlohmann::json::parse(pool_.serializeSignalRecords()); });
    for (auto record = records.begin(); record != records.end();) {
      record = (*record)["signalId"] < kWhole ? record + 1 : records.erase(record);
    }
    handles_.clear();
    FeatureFlag::set("fKYRUseParquetRowGroup", true);
    pool_.deserializeSignalRecords(records.dump());
    FeatureFlag::set("fKYRUseParquetRowGroup", false);
  }

  // The next rows of content op.c, as they are appended. op.a says how many; sometimes they are
  // more than a batch, and sometimes they come one by one.
  static std::vector<Rows> next(const Kind& kind, Rows& model, const Op& op) {
    Rows rows;
    const unsigned count = op.b % 8 < 2 ? op.a % 40 : op.a % 5;
    for (unsigned i = 0; i < count; ++i) rows.push_back(rowOf(kind, op.c % 4, model.size() + i));
    model.insert(model.end(), rows.begin(), rows.end());
    if (op.b % 8 != 1) return {rows};
    std::vector<Rows> single;
    for (const Row& row : rows) single.push_back({row});
    return single;
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
    std::size_t times = 0;
    std::size_t samples = 0;
    attempt([&] { times = stream.rowCount(Part::time); });
    attempt([&] { samples = stream.rowCount(Part::data); });
    if (times != model.time.size() || samples != model.data.size()) {
      fail(when + ": the number of rows of signal " + std::to_string(id));
    }
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
    for (const auto& entry : models_) {
      const int id = entry.first;
      const Model& model = entry.second;
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
  std::map<int, std::shared_ptr<StreamableSignal>> handles_;
  std::map<int, Model> models_;
  std::string failure_;
};

}  // namespace kyr::test::model
