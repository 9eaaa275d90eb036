#include <arrow/status.h>

#include <fstream>
#include <iterator>
#include <limits>
#include <optional>

#include "Store.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/recording/Recording.h"

namespace kyr::compare {

namespace {

constexpr unsigned long kBatchRows = 65536;
constexpr unsigned long kAll = std::numeric_limits<unsigned long>::max();

using Dimensions = std::vector<std::vector<std::size_t>>;
using parquet::StreamableSignal;

struct KyrOptions {
  bool isSafe;
  bool dictionary;
  bool isSaved;
  bool isPacked = false;  // only if it is saved
};

// Contents below it share files.
constexpr std::size_t kPackBelow = std::size_t{1} << 20U;

Dimensions dimensionsOf(const Workload& workload) {
  return workload.elements == 9 ? Dimensions{{3, 3}} : Dimensions();
}

template <typename Signal>
void setType(const Workload& workload, Signal& signal) {
  signal.setDataType(workload.values == Values::counts ? Int16 : Double);
  signal.setCategory(workload.elements > 1 ? FixedDim : Scalar);
}

}  // namespace

/// A pool, and perhaps a recording saved from it. Whole vectors go through ParquetSignal, appended
/// ones through StreamableSignal, where the first signal alone appends the times.
class KyrStore : public Store {
 public:
  KyrStore(const fs::path& folder, const KyrOptions& options) : Store(folder), options_(options) {
    parquet::serialization_options::bDictionary = options.dictionary;
  }

  bool supports(const Workload&) const override { return true; }
  // Whole vectors, to be compared with what a live recording leaves.
  bool supportsLive(const Workload& workload) const override {
    return options_.isPacked && workload.windowRows == 0;
  }

  void write(const Workload& workload, const Data& data) override {
    openPool(workload, options_.isSaved ? notes("pool") : stored());
    if (workload.isWhole()) {
      writeWhole(workload, data);
    } else {
      append(workload, data);
    }
    if (!options_.isSaved) return;
    std::vector<recording::SignalDescription> descriptions;
    for (std::size_t i = 0; i < workload.signals; ++i) {
      const auto dimensions = dimensionsOf(workload);
      descriptions.push_back({static_cast<int>(i), "signal " + std::to_string(i), "m/s", "",
                              dimensions.empty() ? std::vector<std::size_t>() : dimensions[0]});
    }
    recording::SaveOptions saving;
    if (options_.isPacked) {
      saving.packBelow = kPackBelow;
      saving.sync = false;
    }
    recording::saveRecording(*pool_, descriptions, Path::fromFilesystem(stored()), saving);
  }

  void leave() override {
    if (!options_.isSaved) std::ofstream(notes("records")) << pool_->serializeSignalRecords();
  }

  void read(const Workload& workload, ReadBack& values) override {
    openWindows(workload);
    if (workload.isWhole()) {
      readWhole(workload, values);
      return;
    }
    streamed(workload, 0)->getTime(0, kAll, values.time.vector());
    Dimensions dimensions;
    for (std::size_t i = 0; i < workload.signals; ++i) {
      streamed(workload, i)->getData(0, kAll, values.signals[i].vector(), dimensions);
    }
  }

  void openWindows(const Workload& workload) override {
    workload_ = workload;
    if (options_.isSaved) {
      setMode(workload);
      recording_.emplace(recording::openRecording(Path::fromFilesystem(stored())));
      return;
    }
    openPool(workload, stored());
    std::ifstream file(notes("records"));
    pool_->deserializeSignalRecords(
        std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
  }

  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    Dimensions dimensions;
    streamed(workload_, signal)->getData(from, from + count, values.vector(), dimensions);
  }

 private:
  static void setMode(const Workload& workload) {
    FeatureFlag::set("fKYRUseParquetRowGroup", !workload.isWhole());
  }

  void openPool(const Workload& workload, const fs::path& folder) {
    setMode(workload);
    const Path path = Path::fromFilesystem(folder);
    parquet::SafeStorage storage;
    if (options_.isPacked) storage.holdBelow = kPackBelow;
    pool_ = options_.isSafe ? std::make_unique<parquet::SignalPool>(path, storage)
                            : std::make_unique<parquet::SignalPool>(path);
  }

  parquet::SignalPool& pool() { return recording_ ? recording_->pool() : *pool_; }

  std::shared_ptr<StreamableSignal> streamed(const Workload& workload, std::size_t i) {
    auto signal = pool().getStreamableSignal(static_cast<int>(i));
    setType(workload, *signal);
    return signal;
  }

  void writeWhole(const Workload& workload, const Data& data) {
    const Dimensions dimensions = dimensionsOf(workload);
    for (std::size_t i = 0; i < data.signals.size(); ++i) {
      const auto signal = pool_->getSignal(static_cast<int>(i));
      setType(workload, *signal);
      signal->setData(data.time, data.signals[i], dimensions, {});
      if (!signal->writeStatus().ok()) {
        throw std::runtime_error(signal->writeStatus().ToString());
      }
    }
  }

  void append(const Workload& workload, const Data& data) {
    const Dimensions dimensions = dimensionsOf(workload);
    const std::vector<int> noSizes;
    std::vector<std::shared_ptr<StreamableSignal>> signals;
    for (std::size_t i = 0; i < data.signals.size(); ++i) {
      signals.push_back(streamed(workload, i));
      if (!options_.isSafe) signals.back()->setBufferSize(kBatchRows);
    }
    const std::size_t sampleSize = workload.sampleSize();
    forEachChunk(workload, data, [&](std::size_t i, const char* rows, std::size_t count) {
      if (i == 0) {
        signals[0]->appendTime(reinterpret_cast<const double*>(rows), count);
      } else {
        signals[i - 1]->appendData(rows, count * sampleSize, dimensions, noSizes);
      }
    });
    for (const auto& signal : signals) {
      signal->finish();
      if (!signal->writeStatus().ok()) {
        throw std::runtime_error(signal->writeStatus().ToString());
      }
    }
  }

  void readWhole(const Workload& workload, ReadBack& values) {
    Dimensions dimensions;
    for (std::size_t i = 0; i < workload.signals; ++i) {
      const auto signal = pool().getSignal(static_cast<int>(i));
      setType(workload, *signal);
      signal->getData(values.time.doubles(), values.signals[i].vector(), dimensions);
    }
  }

  KyrOptions options_;
  Workload workload_{};
  std::unique_ptr<parquet::SignalPool> pool_;
  std::optional<recording::Recording> recording_;
};

namespace {

[[maybe_unused]] const bool kAdded[] = {
    addStore<KyrStore>("kyr:default", KyrOptions{false, false, false}),
    addStore<KyrStore>("kyr:default+dict", KyrOptions{false, true, false}),
    addStore<KyrStore>("kyr:safe", KyrOptions{true, true, false}),
    addStore<KyrStore>("kyr:safe+saved", KyrOptions{true, true, true}),
    addStore<KyrStore>("kyr:packed", KyrOptions{true, true, true, true}),
};

}  // namespace

}  // namespace kyr::compare
