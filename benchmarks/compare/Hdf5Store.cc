#include <hdf5.h>
#include <unistd.h>

#include <algorithm>

#include "Store.h"

/// HDF5: one file, one dataset for each vector.
namespace kyr::compare {

namespace {

constexpr hsize_t kChunkRows = 10'000;

template <typename Result>
Result check(Result result) {
  if (result < 0) throw std::runtime_error("HDF5 reports an error");
  return result;
}

class Handle {
 public:
  Handle(hid_t id, herr_t (*closeIt)(hid_t)) : id_(check(id)), close_(closeIt) {}
  ~Handle() {
    if (close_) close_(id_);
  }
  Handle(Handle&& other) noexcept : id_(other.id_), close_(std::exchange(other.close_, nullptr)) {}
  Handle& operator=(Handle&&) = delete;
  operator hid_t() const { return id_; }

 private:
  hid_t id_;
  herr_t (*close_)(hid_t);
};

hid_t elementType(const Workload& workload, std::size_t column) {
  return column > 0 && workload.values == Values::counts ? H5T_NATIVE_INT16 : H5T_NATIVE_DOUBLE;
}

// Rows, and the elements of a matrix.
std::vector<hsize_t> extents(const Workload& workload, std::size_t column, std::size_t rows) {
  std::vector<hsize_t> result{rows};
  if (column > 0 && workload.elements > 1) result.push_back(workload.elements);
  return result;
}

Handle space(const std::vector<hsize_t>& size, const hsize_t* largest = nullptr) {
  return {H5Screate_simple(static_cast<int>(size.size()), size.data(), largest), H5Sclose};
}

void readRows(hid_t dataset, const std::vector<hsize_t>& from, const std::vector<hsize_t>& extent,
              void* out) {
  const Handle file(H5Dget_space(dataset), H5Sclose);
  check(H5Sselect_hyperslab(file, H5S_SELECT_SET, from.data(), nullptr, extent.data(), nullptr));
  check(H5Dread(dataset, H5T_NATIVE_DOUBLE, space(extent), file, H5P_DEFAULT, out));
}

}  // namespace

class Hdf5Store : public Store {
 public:
  enum class Layout { contiguous, chunked, gzip };
  Hdf5Store(const fs::path& folder, Layout layout) : Store(folder), layout_(layout) {}

  bool supports(const Workload& workload) const override {
    if (layout_ == Layout::gzip) return workload.name == "W1q" || workload.name == "W1i";
    return workload.isWhole() == (layout_ == Layout::contiguous);
  }

  void write(const Workload& workload, const Data& data) override {
    const Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    check(H5Pset_libver_bounds(access, H5F_LIBVER_LATEST, H5F_LIBVER_LATEST));
    const Handle file(H5Fcreate(path().c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access), H5Fclose);
    if (!workload.isWhole()) {
      append(workload, data, file);
      return;
    }
    for (std::size_t i = 0; i < data.columns(); ++i) {
      const Handle dataset = create(file, workload, i, workload.rows);
      check(H5Dwrite(dataset, elementType(workload, i), H5S_ALL, H5S_ALL, H5P_DEFAULT,
                     data.column(i)));
    }
  }

  void read(const Workload& workload, ReadBack& values) override {
    const Handle file = openFile();
    for (std::size_t i = 0; i <= workload.signals; ++i) {
      const Handle dataset(H5Dopen2(file, name(i).c_str(), H5P_DEFAULT), H5Dclose);
      char* out = i == 0 ? values.time.allocate(workload.rows * sizeof(double))
                         : values.signals[i - 1].allocate(workload.rows * workload.sampleSize());
      check(H5Dread(dataset, elementType(workload, i), H5S_ALL, H5S_ALL, H5P_DEFAULT, out));
    }
  }

  void closeWindow() override {
    dataset_.reset();
    file_.reset();
  }

  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    if (!dataset_) {
      file_ = std::make_unique<Handle>(openFile());
      dataset_ = std::make_unique<Handle>(H5Dopen2(*file_, name(signal + 1).c_str(), H5P_DEFAULT),
                                          H5Dclose);
    }
    readRows(*dataset_, {from}, {count}, values.allocate(count * sizeof(double)));
  }

 private:
  static std::string name(std::size_t column) { return "signal " + std::to_string(column); }
  std::string path() const { return stored("signals.h5").string(); }
  Handle openFile() const {
    return {H5Fopen(path().c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose};
  }

  Handle create(hid_t file, const Workload& workload, std::size_t column, std::size_t rows) const {
    const std::vector<hsize_t> size = extents(workload, column, rows);
    const Handle properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    const hsize_t unlimited = H5S_UNLIMITED;
    if (layout_ != Layout::contiguous) {
      const hsize_t chunk = std::min<hsize_t>(kChunkRows, workload.rows);
      check(H5Pset_chunk(properties, 1, &chunk));
    }
    if (layout_ == Layout::gzip) {
      check(H5Pset_shuffle(properties));
      check(H5Pset_deflate(properties, 1));
    }
    const Handle shape = space(size, layout_ == Layout::chunked ? &unlimited : nullptr);
    return {H5Dcreate2(file, name(column).c_str(), elementType(workload, column), shape,
                       H5P_DEFAULT, properties, H5P_DEFAULT),
            H5Dclose};
  }

  // Rows gather until they fill a chunk.
  void append(const Workload& workload, const Data& data, hid_t file) const {
    struct Column {
      Handle dataset;
      std::vector<char> rows;
      hsize_t written = 0;

      void write() {
        const hsize_t count = rows.size() / sizeof(double);
        const hsize_t size = written + count;
        check(H5Dset_extent(dataset, &size));
        const Handle target(H5Dget_space(dataset), H5Sclose);
        check(H5Sselect_hyperslab(target, H5S_SELECT_SET, &written, nullptr, &count, nullptr));
        check(
            H5Dwrite(dataset, H5T_NATIVE_DOUBLE, space({count}), target, H5P_DEFAULT, rows.data()));
        written = size;
        rows.clear();
      }
    };
    std::vector<Column> columns;
    for (std::size_t i = 0; i < data.columns(); ++i) {
      columns.push_back({create(file, workload, i, 0), {}});
      columns.back().rows.reserve(kChunkRows * sizeof(double));
    }
    forEachChunk(workload, data, [&](std::size_t i, const char* rows, std::size_t count) {
      Column& column = columns[i];
      column.rows.insert(column.rows.end(), rows, rows + count * sizeof(double));
      if (column.rows.size() >= kChunkRows * sizeof(double)) column.write();
    });
    for (Column& column : columns) {
      if (!column.rows.empty()) column.write();
    }
  }

  Layout layout_;
  std::unique_ptr<Handle> file_;
  std::unique_ptr<Handle> dataset_;
};

/// A live recording: a table of steps x signals that grows by a row of chunks per flush.
class Hdf5TableStore : public LiveStore {
 public:
  Hdf5TableStore(const fs::path& folder, bool syncs) : LiveStore(folder), syncs_(syncs) {}

  void start(const Workload& workload) override {
    const Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    check(H5Pset_libver_bounds(access, H5F_LIBVER_LATEST, H5F_LIBVER_LATEST));
    file_ = std::make_unique<Handle>(
        H5Fcreate(stored("signals.h5").c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access), H5Fclose);
    table_ = create("samples", {workload.flushRows, std::min(workload.signals, kChunkSignals)},
                    {0, workload.signals});
    times_ = create("time", {kChunkRows}, {0});
    signals_ = workload.signals;
    newRows_.reserve(workload.flushRows * signals_);
  }

  void appendStep(double time, const double* samples) override {
    newTimes_.push_back(time);
    newRows_.insert(newRows_.end(), samples, samples + signals_);
  }

  void flush() override {
    append(*times_, newTimes_, {newTimes_.size()});
    append(*table_, newRows_, {newTimes_.size(), signals_});
    written_ += newTimes_.size();
    newTimes_.clear();
    newRows_.clear();
    check(H5Fflush(*file_, H5F_SCOPE_GLOBAL));
    if (!syncs_) return;
    void* descriptor = nullptr;
    check(H5Fget_vfd_handle(*file_, H5P_DEFAULT, &descriptor));
    if (fdatasync(*static_cast<int*>(descriptor)) != 0) throw std::runtime_error("fdatasync");
  }

  void finish() override {
    times_.reset();
    table_.reset();
    file_.reset();
  }

  // A row of chunks at a time, of which each signal gets its column.
  void read(const Workload& workload, ReadBack& values) override {
    const Handle file(H5Fopen(stored("signals.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    const Handle times(H5Dopen2(file, "time", H5P_DEFAULT), H5Dclose);
    const Handle table(H5Dopen2(file, "samples", H5P_DEFAULT), H5Dclose);
    const std::size_t size = workload.rows * sizeof(double);
    check(H5Dread(times, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT,
                  values.time.allocate(size)));
    std::vector<double*> next;
    for (Bytes& signal : values.signals) {
      next.push_back(reinterpret_cast<double*>(signal.allocate(size)));
    }
    std::vector<double> block(workload.flushRows * workload.signals);
    for (std::size_t row = 0; row < workload.rows; row += workload.flushRows) {
      readRows(table, {row, 0}, {workload.flushRows, workload.signals}, block.data());
      for (std::size_t i = 0; i < next.size(); ++i) {
        for (std::size_t at = i; at < block.size(); at += workload.signals) *next[i]++ = block[at];
      }
    }
  }

  // By the handles that write: a file that is open for writing cannot be opened once more.
  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    readRows(*table_, {from, signal}, {count, 1}, values.allocate(count * sizeof(double)));
  }

 private:
  static constexpr std::size_t kChunkSignals = 1'000;

  std::unique_ptr<Handle> create(const char* name, const std::vector<hsize_t>& chunk,
                                 const std::vector<hsize_t>& size) const {
    const Handle properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    check(H5Pset_chunk(properties, static_cast<int>(chunk.size()), chunk.data()));
    std::vector<hsize_t> largest = size;
    largest[0] = H5S_UNLIMITED;
    return std::make_unique<Handle>(
        H5Dcreate2(*file_, name, H5T_NATIVE_DOUBLE, space(size, largest.data()), H5P_DEFAULT,
                   properties, H5P_DEFAULT),
        H5Dclose);
  }

  void append(hid_t dataset, const std::vector<double>& values,
              const std::vector<hsize_t>& extent) const {
    std::vector<hsize_t> size = extent;
    size[0] += written_;
    check(H5Dset_extent(dataset, size.data()));
    const Handle target(H5Dget_space(dataset), H5Sclose);
    std::vector<hsize_t> from(extent.size(), 0);
    from[0] = written_;
    check(
        H5Sselect_hyperslab(target, H5S_SELECT_SET, from.data(), nullptr, extent.data(), nullptr));
    check(H5Dwrite(dataset, H5T_NATIVE_DOUBLE, space(extent), target, H5P_DEFAULT, values.data()));
  }

  bool syncs_;
  std::size_t signals_ = 0;
  hsize_t written_ = 0;
  std::vector<double> newTimes_;
  std::vector<double> newRows_;
  std::unique_ptr<Handle> file_;
  std::unique_ptr<Handle> times_;
  std::unique_ptr<Handle> table_;
};

namespace {

[[maybe_unused]] const bool kAdded[] = {
    addStore<Hdf5TableStore>("hdf5:table", false),
    addStore<Hdf5TableStore>("hdf5:table+sync", true),
    addStore<Hdf5Store>("hdf5:contiguous", Hdf5Store::Layout::contiguous),
    addStore<Hdf5Store>("hdf5:chunked", Hdf5Store::Layout::chunked),
    addStore<Hdf5Store>("hdf5:gzip", Hdf5Store::Layout::gzip),
};

}  // namespace

}  // namespace kyr::compare
