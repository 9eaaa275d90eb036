#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unordered_map>

#include "Store.h"
#include "storage/ContentHash.h"

/// The same bytes, moved with write(2) and read(2).
namespace kyr::compare {

namespace {

class Descriptor {
 public:
  Descriptor(const fs::path& file, int flags) : fd_(open(file.c_str(), flags, 0644)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), file);
  }
  ~Descriptor() { close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void write(const char* data, std::size_t size) const {
    while (size > 0) {
      const ssize_t done = ::write(fd_, data, size);
      if (done <= 0) throw std::system_error(errno, std::generic_category(), "write");
      data += done;
      size -= static_cast<std::size_t>(done);
    }
  }

  void read(char* data, std::size_t size) const {
    while (size > 0) {
      const ssize_t done = ::read(fd_, data, size);
      if (done <= 0) throw std::system_error(errno, std::generic_category(), "read");
      data += done;
      size -= static_cast<std::size_t>(done);
    }
  }

  void sync() const {
    if (fdatasync(fd_) != 0) throw std::system_error(errno, std::generic_category(), "fdatasync");
  }

  void seek(std::size_t offset) const { lseek(fd_, static_cast<off_t>(offset), SEEK_SET); }

  std::size_t size() const {
    struct stat status {};
    if (fstat(fd_, &status) != 0) throw std::system_error(errno, std::generic_category(), "fstat");
    return static_cast<std::size_t>(status.st_size);
  }

 private:
  int fd_;
};

constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC;
constexpr std::size_t kBufferSize = 65536;

}  // namespace

/// One file for each column.
class FloorStore : public Store {
 public:
  /// \param timeAgain  whether the time is read again with each signal, as a pool's getData() does
  FloorStore(const fs::path& folder, bool timeAgain) : Store(folder), timeAgain_(timeAgain) {}

  bool supports(const Workload& workload) const override {
    return !timeAgain_ || workload.isWhole();
  }

  void write(const Workload& workload, const Data& data) override {
    width_ = workload.sampleSize();
    if (!workload.isWhole()) {
      append(workload, data);
      return;
    }
    for (std::size_t i = 0; i < data.columns(); ++i) {
      Descriptor(file(i), kCreate).write(data.column(i), workload.rows * width(i));
    }
  }

  void read(const Workload& workload, ReadBack& values) override {
    width_ = workload.sampleSize();
    readWhole(0, values.time);
    for (std::size_t i = 1; i <= workload.signals; ++i) {
      if (timeAgain_) readWhole(0, values.time);
      readWhole(i, values.signals[i - 1]);
    }
  }

  void openWindows(const Workload& workload) override { width_ = workload.sampleSize(); }
  void closeWindow() override { window_.reset(); }
  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    if (!window_) window_ = std::make_unique<Descriptor>(file(signal + 1), O_RDONLY);
    window_->seek(from * width_);
    window_->read(values.allocate(count * width_), count * width_);
  }

 private:
  fs::path file(std::size_t column) const { return stored(std::to_string(column)); }
  std::size_t width(std::size_t column) const { return column == 0 ? sizeof(double) : width_; }

  void readWhole(std::size_t column, Bytes& values) const {
    const Descriptor source(file(column), O_RDONLY);
    const std::size_t size = source.size();
    source.read(values.allocate(size), size);
  }

  // Chunks of less than a page or so gather in a buffer first.
  void append(const Workload& workload, const Data& data) const {
    struct Column {
      Column(const fs::path& path, bool buffers) : file(path, kCreate) {
        if (buffers) buffer.reset(new char[kBufferSize]);
      }
      Descriptor file;
      std::unique_ptr<char[]> buffer;
      std::size_t used = 0;
    };
    const bool buffers = workload.chunkRows * width_ < 4096;
    std::vector<std::unique_ptr<Column>> columns;
    for (std::size_t i = 0; i < data.columns(); ++i) {
      columns.push_back(std::make_unique<Column>(file(i), buffers));
    }
    const std::size_t sampleSize = width_;
    forEachChunk(workload, data, [&](std::size_t i, const char* rows, std::size_t count) {
      Column& column = *columns[i];
      const std::size_t size = count * (i == 0 ? sizeof(double) : sampleSize);
      if (!buffers) {
        column.file.write(rows, size);
        return;
      }
      if (column.used + size > kBufferSize) {
        column.file.write(column.buffer.get(), std::exchange(column.used, 0));
      }
      std::memcpy(&column.buffer[column.used], rows, size);
      column.used += size;
    });
    for (const auto& column : columns) column->file.write(column->buffer.get(), column->used);
  }

  bool timeAgain_;
  std::size_t width_ = 0;
  std::unique_ptr<Descriptor> window_;
};

/// One file for everything.
class OneFileFloorStore : public Store {
 public:
  using Store::Store;

  bool supports(const Workload& workload) const override { return workload.isWhole(); }

  void write(const Workload& workload, const Data& data) override {
    const Descriptor file(stored("all"), kCreate);
    for (std::size_t i = 0; i < data.columns(); ++i) {
      file.write(data.column(i), workload.rows * (i == 0 ? sizeof(double) : workload.sampleSize()));
    }
  }

  void read(const Workload& workload, ReadBack& values) override {
    const Descriptor file(stored("all"), O_RDONLY);
    const std::size_t timeSize = workload.rows * sizeof(double);
    const std::size_t size = workload.rows * workload.sampleSize();
    file.read(values.time.allocate(timeSize), timeSize);
    for (Bytes& signal : values.signals) file.read(signal.allocate(size), size);
  }
};

/// Each distinct content once: kyr's content hash of every vector handed in, and write(2).
class DedupFloorStore : public Store {
 public:
  using Store::Store;

  bool supports(const Workload& workload) const override { return workload.name == "W5"; }

  void write(const Workload& workload, const Data& data) override {
    for (const auto& signal : data.signals) {
      add(reinterpret_cast<const char*>(data.time.data()), workload.rows);
      files_.push_back(add(signal.data(), workload.rows));
    }
  }

  void leave() override {
    Descriptor(notes("files"), kCreate)
        .write(reinterpret_cast<const char*>(files_.data()), files_.size() * sizeof(std::size_t));
  }

  void openFiles(const Workload& workload) {
    files_.resize(workload.signals);
    Descriptor(notes("files"), O_RDONLY)
        .read(reinterpret_cast<char*>(files_.data()), files_.size() * sizeof(std::size_t));
  }

  void read(const Workload& workload, ReadBack& values) override {
    openFiles(workload);
    const std::size_t size = workload.rows * sizeof(double);
    Descriptor(stored("0"), O_RDONLY).read(values.time.allocate(size), size);
    for (std::size_t i = 0; i < workload.signals; ++i) {
      Descriptor(stored(std::to_string(files_[i])), O_RDONLY)
          .read(values.signals[i].allocate(size), size);
    }
  }

 private:
  std::size_t add(const char* values, std::size_t count) {
    const auto [known, isNew] =
        known_.emplace(parquet::contentHash<double>(values, count, {}), known_.size());
    if (isNew) {
      Descriptor(stored(std::to_string(known->second)), kCreate)
          .write(values, count * sizeof(double));
    }
    return known->second;
  }

  std::unordered_map<std::uint64_t, std::size_t> known_;
  std::vector<std::size_t> files_;
};

/// One file for a live recording, with one write(2) per flush: the new rows of the time, and then
/// those of one signal after the other.
class LiveFloorStore : public LiveStore {
 public:
  /// \param syncs  whether a flush waits for the disk, and finish() writes and syncs as many bytes
  ///        once more, which is what a store may take that orders them anew
  LiveFloorStore(const fs::path& folder, bool syncs) : LiveStore(folder), syncs_(syncs) {}

  void start(const Workload& workload) override {
    file_ = std::make_unique<Descriptor>(stored("all"), kCreate);
    signals_ = workload.signals;
    blockRows_ = workload.flushRows;
    block_.resize(blockRows_ * (signals_ + 1));
  }

  void appendStep(double time, const double* samples) override {
    double* next = &block_[rows_++ % blockRows_];
    *next = time;
    for (std::size_t i = 0; i < signals_; ++i) *(next += blockRows_) = samples[i];
  }

  void flush() override {
    file_->write(reinterpret_cast<const char*>(block_.data()), block_.size() * sizeof(double));
    if (syncs_) file_->sync();
  }

  void finish() override {
    if (syncs_) {
      const Descriptor again(notes("rewritten"), kCreate);
      for (std::size_t row = 0; row < rows_; row += blockRows_) {
        again.write(reinterpret_cast<const char*>(block_.data()), block_.size() * sizeof(double));
      }
      again.sync();
    }
    file_.reset();
  }

  void read(const Workload& workload, ReadBack& values) override {
    const Descriptor file(stored("all"), O_RDONLY);
    const std::size_t size = workload.rows * sizeof(double);
    std::vector<char*> next{values.time.allocate(size)};
    for (Bytes& signal : values.signals) next.push_back(signal.allocate(size));
    const std::size_t run = workload.flushRows * sizeof(double);
    std::vector<char> block(run * next.size());
    for (std::size_t row = 0; row < workload.rows; row += workload.flushRows) {
      file.read(block.data(), block.size());
      for (std::size_t i = 0; i < next.size(); ++i) {
        std::memcpy(next[i], &block[i * run], run);
        next[i] += run;
      }
    }
  }

  void refresh() override { window_ = std::make_unique<Descriptor>(stored("all"), O_RDONLY); }

  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    char* next = values.allocate(count * sizeof(double));
    for (const std::size_t end = from + count; from < end;) {
      const std::size_t inBlock = from % blockRows_;
      const std::size_t rows = std::min(blockRows_ - inBlock, end - from);
      const std::size_t column = (from / blockRows_ * (signals_ + 1) + signal + 1) * blockRows_;
      window_->seek((column + inBlock) * sizeof(double));
      window_->read(next, rows * sizeof(double));
      next += rows * sizeof(double);
      from += rows;
    }
  }

 private:
  bool syncs_;
  std::unique_ptr<Descriptor> file_;
  std::unique_ptr<Descriptor> window_;
  std::size_t signals_ = 0;
  std::size_t blockRows_ = 0;
  std::size_t rows_ = 0;
  std::vector<double> block_;
};

namespace {

[[maybe_unused]] const bool kAdded[] = {
    addStore<FloorStore>("floor", false),         addStore<LiveFloorStore>("floor", false),
    addStore<LiveFloorStore>("floor:sync", true), addStore<FloorStore>("floor:pairs", true),
    addStore<OneFileFloorStore>("floor:one"),     addStore<DedupFloorStore>("floor:dedup"),
};

}  // namespace

}  // namespace kyr::compare
