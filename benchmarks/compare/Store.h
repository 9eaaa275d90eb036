#pragma once

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Workload.h"

namespace kyr::compare {

namespace fs = std::filesystem;

/// Values that were read, in the memory that suits the store best.
class Bytes {
 public:
  /// Memory of which nothing has been touched yet; as it was if it is of that size already.
  char* allocate(std::size_t size) {
    if (size_ != size || !raw_) raw_.reset(new char[size]);
    size_ = size;
    return raw_.get();
  }
  std::vector<char>& vector() { return vector_; }
  std::vector<double>& doubles() { return doubles_; }

  std::size_t size() const {
    if (raw_) return size_;
    return vector_.empty() ? doubles_.size() * sizeof(double) : vector_.size();
  }
  const char* data() const {
    if (raw_) return raw_.get();
    return vector_.empty() ? reinterpret_cast<const char*>(doubles_.data()) : vector_.data();
  }

 private:
  std::unique_ptr<char[]> raw_;
  std::size_t size_ = 0;
  std::vector<char> vector_;
  std::vector<double> doubles_;
};

struct ReadBack {
  Bytes time;
  std::vector<Bytes> signals;
};

/// One way of storing signals. Each phase runs in a process of its own, which ends without
/// destroying the store.
class Store {
 public:
  /// \param folder  whatever lies in its sub-folder "stored" counts as the store's files
  explicit Store(fs::path folder) : folder_(std::move(folder)) {}
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  virtual bool supports(const Workload& workload) const = 0;
  /// Does what supports() does, for workloads that are recorded live.
  virtual bool supportsLive(const Workload& /*workload*/) const { return false; }
  bool takes(const Workload& workload) const {
    return workload.isLive() ? supportsLive(workload) : supports(workload);
  }

  /// Store all of it. When the call returns, the system has every byte.
  virtual void write(const Workload& workload, const Data& data) = 0;

  /// After the clock has stopped: notes that only reading in another process needs.
  virtual void leave() {}

  /// After the clock has stopped: throws if read() left something out that its values do not show.
  virtual void verify(const Workload& /*workload*/) {}

  /// Open what was written and read every column. \p values has an entry for each signal.
  virtual void read(const Workload& workload, ReadBack& values) = 0;

  /// Before windows are read, outside the clock.
  virtual void openWindows(const Workload& /*workload*/) {}

  /// Read rows of one signal. The first window of a signal opens its file, later ones know it.
  virtual void readWindow(std::size_t /*signal*/, std::size_t /*from*/, std::size_t /*count*/,
                          Bytes& /*values*/) {
    throw std::logic_error("this store reads no windows");
  }

  /// Before the first window of another signal, outside the clock: close what is open.
  virtual void closeWindow() {}

 protected:
  fs::path stored(const std::string& name = {}) const {
    return name.empty() ? folder_ / "stored" : folder_ / "stored" / name;
  }
  fs::path notes(const std::string& name) const { return folder_ / name; }

 private:
  fs::path folder_;
};

/// A store that gets a sample of each signal per step, and brings what it has to the system now and
/// then. Windows are read while it is written.
class LiveStore : public Store {
 public:
  using Store::Store;

  bool supports(const Workload&) const override { return false; }
  bool supportsLive(const Workload&) const override { return true; }

  /// Make the files, and make the signals known.
  virtual void start(const Workload& workload) = 0;
  /// \param samples  one of each signal, all at \p time
  virtual void appendStep(double time, const double* samples) = 0;
  /// When the call returns, the system has every step, so that the end of the process loses none.
  virtual void flush() = 0;
  /// Nothing is appended any more.
  virtual void finish() {}
  /// Let windows see what was flushed.
  virtual void refresh() {}

  /// Appends all steps and calls flushDue(rows so far) when a flush is due.
  template <typename FlushDue>
  void appendAll(const Workload& workload, const Data& data, FlushDue&& flushDue) {
    for (std::size_t row = 0; row < workload.rows; ++row) {
      appendStep(data.time[row], &data.steps[row * workload.signals]);
      if ((row + 1) % workload.flushRows == 0) flushDue(row + 1);
    }
  }

  void write(const Workload& workload, const Data& data) override {
    start(workload);
    appendAll(workload, data, [&](std::size_t) { flush(); });
    finish();
  }
};

using StoreFactory = std::function<std::unique_ptr<Store>(const fs::path& folder)>;

/// The stores of this program by name. Those that have the same name take different workloads.
inline std::multimap<std::string, StoreFactory>& stores() {
  static std::multimap<std::string, StoreFactory> all;
  return all;
}

/// Adds `Made(folder, options...)` to them.
template <typename Made, typename... Options>
bool addStore(const std::string& name, Options... options) {
  stores().emplace(
      name, [=](const fs::path& folder) { return std::make_unique<Made>(folder, options...); });
  return true;
}

}  // namespace kyr::compare
