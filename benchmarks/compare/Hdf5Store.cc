#include <hdf5.h>

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

void readRows(hid_t dataset, hid_t type, std::size_t from, std::size_t count, char* out) {
  const Handle file(H5Dget_space(dataset), H5Sclose);
  const hsize_t start = from;
  const hsize_t length = count;
  check(H5Sselect_hyperslab(file, H5S_SELECT_SET, &start, nullptr, &length, nullptr));
  check(H5Dread(dataset, type, space({length}), file, H5P_DEFAULT, out));
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
    readRows(*dataset_, H5T_NATIVE_DOUBLE, from, count, values.allocate(count * sizeof(double)));
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

namespace {

[[maybe_unused]] const bool kAdded[] = {
    addStore<Hdf5Store>("hdf5:contiguous", Hdf5Store::Layout::contiguous),
    addStore<Hdf5Store>("hdf5:chunked", Hdf5Store::Layout::chunked),
    addStore<Hdf5Store>("hdf5:gzip", Hdf5Store::Layout::gzip),
};

}  // namespace

}  // namespace kyr::compare
