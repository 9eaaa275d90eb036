// Files of a recording, in any state: complete Parquet files, growing files, packs, and recordings
// that have such a file. Every row of a file is read or refused by an exception.

#include <arrow/table.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "MayRefuse.h"
#include "files/ContentReader.h"
#include "files/InputFile.h"
#include "files/RowGroupCache.h"
#include "files/growing/FileRecovery.h"
#include "kyr/recording/RecordingReader.h"
#include "platform/ByteSource.h"
#include "recording/RecordingFormat.h"

namespace kyr {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kMostRows = 1 << 16;

class MemoryBytes final : public ByteSource {
 public:
  explicit MemoryBytes(std::string_view bytes) : bytes_(bytes) {}

  const fs::path& path() const override { return path_; }
  std::uint64_t size() const override { return bytes_.size(); }
  std::size_t readAt(std::uint64_t offset, void* out, std::size_t size) const override {
    if (offset >= bytes_.size()) return 0;
    const std::string_view piece = bytes_.substr(offset, size);
    if (!piece.empty()) std::memcpy(out, piece.data(), piece.size());
    return piece.size();
  }

 private:
  std::string_view bytes_;
  fs::path path_ = "fuzzed";
};

using kyr::fuzz::mayRefuse;

void readContent(const std::shared_ptr<parquet::InputFile>& file) {
  mayRefuse([&] { static_cast<void>(file->keyValueMetadata()); });
  mayRefuse([&] { static_cast<void>(file->ascendingGroups(0)); });
  const std::uint64_t rows = std::min(file->rows(), kMostRows);
  mayRefuse([&] { static_cast<void>(file->read(0, rows)->ValidateFull()); });
  mayRefuse([&] {
    parquet::ContentReader reader(file, std::make_shared<parquet::RowGroupCache>());
    std::vector<char> numbers(rows * sizeof(double));
    if (reader.isFlat()) mayRefuse([&] { reader.readNumbers("data", 0, rows, numbers.data()); });
    if (reader.hasTimes()) reader.readNumbers("time", rows / 2, rows - rows / 2, numbers.data());
    static_cast<void>(reader.read(rows / 3, rows - rows / 3));
  });
}

void readFile(std::string_view bytes) {
  const auto source = std::make_shared<MemoryBytes>(bytes);
  mayRefuse([&] { readContent(std::make_shared<parquet::InputFile>(source)); });
  for (const auto checks : {parquet::BatchChecks::no, parquet::BatchChecks::yes}) {
    mayRefuse([&] { readContent(parquet::openAnyFile(source, kMostRows, checks)); });
  }
}

// A folder in memory, if the system has such a place. It is removed when the process ends.
class WorkingFolder {
 public:
  WorkingFolder() {
    if (::mkdtemp(name_.data()) == nullptr) std::abort();
    fs::create_directory(path() / "storage");
  }
  ~WorkingFolder() {
    std::error_code ignored;
    fs::remove_all(path(), ignored);
  }
  WorkingFolder(const WorkingFolder&) = delete;
  WorkingFolder& operator=(const WorkingFolder&) = delete;

  fs::path path() const { return name_; }

 private:
  std::string name_ = fs::is_directory("/dev/shm") ? "/dev/shm/kyr-fuzz-XXXXXX" : "kyr-fuzz-XXXXXX";
};

fs::path workingFolder() {
  static const WorkingFolder kFolder;
  return kFolder.path();
}

void write(const fs::path& file, std::string_view bytes) {
  std::ofstream(file, std::ios::binary) << bytes;
}

void recover(std::string_view bytes) {
  const fs::path file = workingFolder() / "storage" / "2";
  write(file, bytes);
  mayRefuse([&] { parquet::recoverFile(Folder(file.parent_path()), file.filename(), kMostRows); });
}

// The file as times and as samples of a recording, which the description may not fit.
void readRecording(std::string_view bytes, std::uint8_t choice) {
  using recording::FileInfo;
  recording::RecordingInfo info;
  info.formatVersion = 1;
  recording::SignalInfo signal;
  signal.name = "s";
  signal.dataType = std::vector{Double, Single, Int8, UInt8, Int64, Boolean, Binary}[choice % 7U];
  signal.category = std::vector{Scalar, FixedDim, VarDim}[choice / 7U % 3];
  if (signal.category == FixedDim) signal.dimensions = {2};
  signal.rowCount = choice / 21U;
  signal.compression = "uncompressed";
  signal.dataStorageId = 1;
  if (choice % 2 == 1) signal.timeStorageId = 1;
  info.signals.push_back(signal);
  FileInfo file;
  file.storageId = 1;
  file.size = bytes.size();
  file.rowCount = signal.rowCount;
  file.checksum = std::string(32, '0');
  info.files.push_back(file);
  write(workingFolder() / "storage" / "1", bytes);
  write(workingFolder() / "recording.json", recording::writeRecordingJson(info));
  mayRefuse([&] {
    recording::ReaderOptions options;
    options.checks = false;
    const recording::RecordingReader reader(Path::fromFilesystem(workingFolder()), options);
    mayRefuse([&] { reader.read(0); });
    mayRefuse([&] { reader.rowsBetween(0, 0, 1); });
    recording::SampleBlocks blocks = reader.blocks(0, {}, 7);
    while (blocks.next() != nullptr) continue;
  });
}

}  // namespace
}  // namespace kyr

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The choice comes last, so that seeds are files with one byte behind them.
  const std::string_view bytes(reinterpret_cast<const char*>(data), size - 1);
  kyr::readFile(bytes);
  kyr::recover(bytes);
  kyr::readRecording(bytes, data[size - 1]);
  return 0;
}
