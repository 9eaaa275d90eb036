#include <optional>

#include "Store.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::compare {

using Sync = parquet::SafeStorage::Sync;

/// A live recording. Every signal appends its time and its sample, and the library stores equal
/// times once; or all signals are a group, to which a step is appended as one array.
class KyrLiveStore : public LiveStore {
 public:
  KyrLiveStore(const fs::path& folder, Sync sync, bool isGroup)
      : LiveStore(folder), sync_(sync), isGroup_(isGroup) {}

  void start(const Workload& workload) override {
    recording::LiveOptions options;
    options.storage.sync = sync_;
    live_.emplace(path(), options);
    std::vector<recording::SignalDescription> descriptions;
    for (std::size_t i = 0; i < workload.signals; ++i) {
      descriptions.push_back({static_cast<int>(i), "signal " + std::to_string(i), "m/s", "", {}});
    }
    if (isGroup_) {
      group_ = live_->addGroup(descriptions, Double);
      return;
    }
    for (const auto& description : descriptions) {
      signals_.push_back(live_->addSignal(description, Double, Scalar));
    }
  }

  void appendStep(double time, const double* samples) override {
    if (group_) return group_->append(&time, 1, samples, group_->signals() * sizeof(double));
    for (const auto& signal : signals_) {
      signal->appendTime(&time, 1);
      signal->appendData(samples++, sizeof(double), noDimensions_, noSizes_);
    }
  }

  void flush() override { live_->flush(); }
  void finish() override { live_->finish(); }

  void read(const Workload& workload, ReadBack& values) override {
    reader_.emplace(path());
    char* time = values.time.allocate(workload.rows * sizeof(double));
    reader_->readTimes(0, {}, reinterpret_cast<double*>(time));
    for (std::size_t i = 0; i < workload.signals; ++i) {
      readWindow(i, 0, workload.rows, values.signals[i]);
    }
  }

  void verify(const Workload& workload) override {
    if (reader_->withSameTimes(0).size() != workload.signals) {
      throw std::runtime_error("not all signals share the times of the first");
    }
  }

  void refresh() override {
    if (!reader_) reader_.emplace(path());
    reader_->refresh();
  }

  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    const std::size_t size = count * sizeof(double);
    const auto read = reader_->readElements(static_cast<int>(signal), {from, from + count},
                                            values.allocate(size), size);
    if (read != count) throw std::runtime_error("samples are missing");
  }

 private:
  Path path() const { return Path::fromFilesystem(stored()); }

  const std::vector<std::vector<unsigned long>> noDimensions_;
  const std::vector<int> noSizes_;
  Sync sync_;
  bool isGroup_;
  std::optional<recording::LiveRecording> live_;
  std::vector<std::shared_ptr<parquet::StreamableSignal>> signals_;
  std::shared_ptr<recording::SignalGroup> group_;
  std::optional<recording::RecordingReader> reader_;
};

namespace {

[[maybe_unused]] const bool kAdded[] = {
    addStore<KyrLiveStore>("kyr:live", Sync::never, false),
    addStore<KyrLiveStore>("kyr:live+sync", Sync::flush, false),
    addStore<KyrLiveStore>("kyr:group", Sync::never, true),
    addStore<KyrLiveStore>("kyr:group+sync", Sync::flush, true),
};

}  // namespace

}  // namespace kyr::compare
