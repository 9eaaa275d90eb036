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

  /// Store all of it. When the call returns, the system has every byte.
  virtual void write(const Workload& workload, const Data& data) = 0;

  /// After the clock has stopped: notes that only reading in another process needs.
  virtual void leave() {}

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

using StoreFactory = std::function<std::unique_ptr<Store>(const fs::path& folder)>;

/// The stores of this program by name.
inline std::map<std::string, StoreFactory>& stores() {
  static std::map<std::string, StoreFactory> all;
  return all;
}

/// Adds `Made(folder, options...)` to them.
template <typename Made, typename... Options>
bool addStore(const std::string& name, Options... options) {
  return stores()
      .emplace(name,
               [=](const fs::path& folder) { return std::make_unique<Made>(folder, options...); })
      .second;
}

}  // namespace kyr::compare
