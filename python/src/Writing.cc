#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <optional>
#include <string>
#include <vector>

#include "Define.h"
#include "SignalWriter.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/WorkingFolder.h"

namespace kyr::python {

namespace {

using Sync = parquet::SafeStorage::Sync;

// What Python holds. Its end need not be that of the recorder, which the signals share.
class RecorderHandle {
 public:
  RecorderHandle(const nb::bytes& folder, double flushSeconds, const std::string& sync,
                 double syncSeconds) {
    Recorder::Options options;
    options.flushSeconds = flushSeconds;
    options.live.storage.sync = sync == "flush"     ? Sync::flush
                                : sync == "seconds" ? Sync::seconds
                                                    : Sync::never;
    options.live.storage.syncSeconds = syncSeconds;
    start(folder, options);
  }
  // A temporary one. Signals of fewer bytes stay in memory until they are saved.
  RecorderHandle(const nb::bytes& folder, std::size_t holdBelow) {
    Recorder::Options options;
    options.isTemporary = true;
    options.live.storage.holdBelow = holdBelow;
    start(folder, options);
  }
  ~RecorderHandle() {
    const nb::gil_scoped_release release;
    try {
      recorder_->abandon();
    } catch (...) {
      // What was flushed before can be recovered all the same.
    }
    recorder_.reset();
  }
  RecorderHandle(const RecorderHandle&) = delete;
  RecorderHandle& operator=(const RecorderHandle&) = delete;

  const std::shared_ptr<Recorder>& get() const { return recorder_; }

 private:
  void start(const nb::bytes& folder, const Recorder::Options& options) {
    const std::string path(folder.c_str(), folder.size());
    const nb::gil_scoped_release release;
    recorder_ = std::make_shared<Recorder>(path, options);
  }

  std::shared_ptr<Recorder> recorder_;
};

SignalWriter add(RecorderHandle& handle, int id, std::string name, std::string unit,
                 std::string description, std::vector<std::size_t> dimensions, int type,
                 int category) {
  const recording::SignalDescription described{id, std::move(name), std::move(unit),
                                               std::move(description), std::move(dimensions)};
  const nb::gil_scoped_release release;
  return {handle.get(), handle.get()->add(described, static_cast<KYRSignalDataType>(type),
                                          static_cast<KYRSignalCategory>(category))};
}

GroupWriter group(RecorderHandle& handle, const std::vector<SignalWriter>& signals) {
  GroupWriter made{handle.get(), {}};
  for (const SignalWriter& signal : signals) made.stages.push_back(signal.stage);
  return made;
}

template <void (Recorder::*Method)()>
void callWithoutLock(RecorderHandle& handle) {
  const nb::gil_scoped_release release;
  (handle.get().get()->*Method)();
}

void saveTo(RecorderHandle& handle, const nb::bytes& folder, std::size_t packBelow, bool replaces) {
  recording::SaveOptions options;
  options.packBelow = packBelow;
  options.replaces = replaces;
  const std::string path(folder.c_str(), folder.size());
  const nb::gil_scoped_release release;
  handle.get()->saveTo(path, options);
}

// A folder beside the recording that is going to be, for its files until then.
class WorkingFolder {
 public:
  explicit WorkingFolder(const nb::bytes& folder)
      : folder_(recording::WorkingFolder::beside(
            Path::fromNarrow(std::string(folder.c_str(), folder.size())))) {}

  nb::bytes path() const {
    const std::string path = folder_->path().toNarrow();
    return nb::bytes(path.data(), path.size());
  }
  void remove() { folder_.reset(); }

 private:
  std::optional<recording::WorkingFolder> folder_;
};

}  // namespace

void defineWriting(nb::module_& module) {
  using namespace nb::literals;
  defineSignalWriter(module);
  nb::class_<RecorderHandle>(module, "Recorder", "Writes a recording while it grows.")
      .def(nb::init<nb::bytes, double, std::string, double>(), "folder"_a, "flush_seconds"_a,
           "sync"_a, "sync_seconds"_a)
      .def(nb::init<nb::bytes, std::size_t>(), "folder"_a, "hold_below"_a,
           "For save_to() alone: nothing survives a crash.")
      .def("add", add, "id"_a, "name"_a, "unit"_a, "description"_a, "dimensions"_a, "data_type"_a,
           "category"_a)
      .def("group", group, "signals"_a)
      .def("flush", callWithoutLock<&Recorder::flush>)
      .def("finish", callWithoutLock<&Recorder::finish>)
      .def("abandon", callWithoutLock<&Recorder::abandon>)
      .def("save_to", saveTo, "folder"_a, "pack_below"_a, "replaces"_a)
      .def_prop_ro("is_open", [](RecorderHandle& handle) {
        const nb::gil_scoped_release release;
        return handle.get()->isOpen();
      });
  nb::class_<WorkingFolder>(module, "WorkingFolder", "For the files of a recording to be.")
      .def(nb::init<nb::bytes>(), "folder"_a)
      .def_prop_ro("path", &WorkingFolder::path)
      .def("remove", &WorkingFolder::remove);
}

}  // namespace kyr::python
