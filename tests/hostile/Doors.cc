// --make OUT writes the recordings OUT/finished and OUT/packed, which are the same but for the way
// in which they are stored, and OUT/live, which has files and growing packs. Otherwise:
//
// Opens folders in every way that the library has, and reads all that they hold. Takes the names of
// folders from standard input, a line each, and prints a line for each of them: how many ways led
// to all rows, how many were refused by an exception. Whatever else happens is a fault.
#include <arrow/c/bridge.h>
#include <arrow/record_batch.h>

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"
#include "kyr/recording/Resampling.h"
#include "kyr/recording/WorkingFolder.h"

namespace {

using namespace kyr;
using namespace kyr::recording;

void readRows(const RecordingReader& reader, int id) {
  reader.timeSpan(id);
  reader.rowsBetween(id, 0, 1);
  reader.read(id);
  SampleBlocks blocks = reader.blocks(id, {}, 3);
  while (blocks.next() != nullptr) continue;
}

void exportRows(const RecordingReader& reader, int id) {
  ArrowArrayStream stream;
  reader.exportTo(id, &stream);
  const auto batches = ::arrow::ImportRecordBatchReader(&stream).ValueOrDie();
  for (;;) {
    const auto batch = batches->Next();
    if (!batch.ok()) throw std::runtime_error(batch.status().ToString());
    if (*batch == nullptr) return;
    const auto status = (*batch)->ValidateFull();
    if (!status.ok()) {
      std::cerr << status.ToString() << '\n';
      std::abort();
    }
  }
}

// Calls \p read for each signal, also behind one that is refused, and throws the first refusal.
template <typename Read>
void forEachSignal(const std::vector<SignalInfo>& signals, Read&& read) {
  std::exception_ptr refusal;
  for (const SignalInfo& signal : signals) {
    try {
      read(signal.signalId);
    } catch (const std::exception&) {
      if (!refusal) refusal = std::current_exception();
    }
  }
  if (refusal) std::rethrow_exception(refusal);
}

void readInPlace(const Path& folder, bool checks) {
  ReaderOptions options;
  options.checks = checks;
  RecordingReader reader(folder, options);
  reader.refresh();
  forEachSignal(reader.signals(), [&](int id) { readRows(reader, id); });
  forEachSignal(reader.signals(), [&](int id) { exportRows(reader, id); });
}

void resample(const Path& folder) {
  const RecordingReader reader(folder);
  forEachSignal(reader.signals(), [&](int id) {
    const Resampling resampling(reader, {id}, {});
    resampling.numbers(id);
  });
}

void look(const Path& folder) {
  const RecordingReader reader(folder);
  forEachSignal(reader.signals(), [&](int id) {
    for (const double end : {1.0, 1e300}) reader.envelope(id, -end, end, 7);
  });
}

void lookForSpans(const Path& folder) {
  const RecordingReader reader(folder);
  forEachSignal(reader.signals(), [&](int id) { reader.spans(id, -1e300, 1e300, 7); });
}

void readWhole(parquet::ParquetSignal& signal) {
  std::vector<double> time;
  std::vector<char> bytes;
  std::vector<std::vector<unsigned long>> dimensions;
  std::vector<int> sizes;
  signal.getData(time, bytes, dimensions, sizes);
}

void open(const Path& folder) {
  Recording recording = openRecording(folder);
  forEachSignal(recording.info().signals, [&](int id) {
    if (const auto signal = recording.pool().getSignal(id)) readWhole(*signal);
  });
}

void describeLive(const Path& folder) {
  if (isLiveRecording(folder)) describeLiveRecording(folder);
}

template <typename T>
std::vector<char> bytesOf(const std::vector<T>& values) {
  const auto* const first = reinterpret_cast<const char*>(values.data());
  return {first, first + values.size() * sizeof(T)};
}

// Appends the same rows to the signals of a pool, two at a time.
class Rows {
 public:
  explicit Rows(const std::function<std::shared_ptr<parquet::StreamableSignal>(
                    const SignalDescription&, KYRSignalDataType, KYRSignalCategory)>& add)
      : number_(add({0, "number", "m", "", {}}, Double, Scalar)),
        truth_(add({1, "truth", "", "", {}}, Boolean, Scalar)),
        matrix_(add({2, "matrix", "", "", {2, 2}}, Int8, FixedDim)),
        varying_(add({3, "varying", "", "", {}}, Single, VarDim)),
        blob_(add({4, "blob", "", "", {}}, Binary, Scalar)) {}

  void append(int count) {
    for (const int end = row_ + count; row_ < end; ++row_) {
      const double time = row_ / 2.0;
      for (const auto& signal : {number_, truth_, matrix_, varying_, blob_}) {
        signal->appendTime(&time, 1);
      }
      const double value = row_ % 7;
      number_->appendData(&value, sizeof(value), {}, {});
      const char truth = row_ % 2 == 0;
      truth_->appendData(&truth, 1, {}, {});
      const auto matrix = bytesOf(std::vector<std::int8_t>{1, 2, 3, std::int8_t(row_)});
      matrix_->appendData(matrix.data(), matrix.size(), {{2, 2}}, {});
      const std::size_t columns = static_cast<std::size_t>(row_ % 3 + 1);
      const auto varying = bytesOf(std::vector<float>(columns * 2, 0.5F));
      varying_->appendData(varying.data(), varying.size(), {{2, columns}}, {});
      const std::string blob(static_cast<std::size_t>(row_ % 5 + 1), 'b');
      blob_->appendData(blob.data(), blob.size(), {}, {static_cast<int>(blob.size())});
    }
  }

 private:
  int row_ = 0;
  std::shared_ptr<parquet::StreamableSignal> number_;
  std::shared_ptr<parquet::StreamableSignal> truth_;
  std::shared_ptr<parquet::StreamableSignal> matrix_;
  std::shared_ptr<parquet::StreamableSignal> varying_;
  std::shared_ptr<parquet::StreamableSignal> blob_;
};

void makeRecordings(const std::filesystem::path& out) {
  const auto pathOf = [&](const char* name) { return Path::fromFilesystem(out / name); };
  parquet::SignalPool pool{parquet::SafeStorage()};
  std::vector<SignalDescription> descriptions;
  Rows rows(
      [&](const SignalDescription& signal, KYRSignalDataType type, KYRSignalCategory category) {
        descriptions.push_back(signal);
        auto streamed = pool.getStreamableSignal(signal.signalId);
        streamed->setDataType(type);
        streamed->setCategory(category);
        return streamed;
      });
  rows.append(20);
  saveRecording(pool, descriptions, pathOf("finished"));
  SaveOptions packing;
  packing.packBelow = 1000;
  saveRecording(pool, descriptions, pathOf("packed"), packing);

  LiveOptions options;
  options.storage.batchRows = 32;  // the first flush goes to files, the second to packs
  LiveRecording live(pathOf("recorded"), options);
  Rows recorded([&](const SignalDescription& signal, KYRSignalDataType type,
                    KYRSignalCategory category) { return live.addSignal(signal, type, category); });
  for (const int count : {10, 5}) {
    recorded.append(count);
    live.flush();
  }
  SignalDescription small;
  small.signalId = 5;  // is in a pack alone
  const auto packed = live.addSignal(small, Int16, Scalar);
  for (std::int16_t value = 1; value <= 3; ++value) {
    packed->appendData(&value, sizeof(value), {}, {});
    live.flush();
  }
  std::filesystem::copy(out / "recorded", out / "live", std::filesystem::copy_options::recursive);
}

struct Door {
  const char* name;
  std::function<void(const Path&)> enter;
};

const std::vector<Door>& doors() {
  static const std::vector<Door> kDoors{
      {"describe", [](const Path& folder) { describeRecording(folder); }},
      {"describe live", describeLive},
      {"read", [](const Path& folder) { readInPlace(folder, true); }},
      {"read without checks", [](const Path& folder) { readInPlace(folder, false); }},
      {"resample", resample},
      {"look", look},
      {"look for spans", lookForSpans},
      {"open", open},
      {"verify", [](const Path& folder) { verifyRecording(folder); }},
      {"verify behind links", [](const Path& folder) { verifyRecording(folder, Links::followed); }},
      {"leftovers", [](const Path& folder) { findLeftovers(folder); }},
      {"collect", [](const Path& folder) { collectUnusedFiles(folder, /*isDry=*/false); }},
      {"recover", [](const Path& folder) { recoverRecording(folder); }},
      {"read what was recovered", [](const Path& folder) { readInPlace(folder, true); }},
  };
  return kDoors;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--make") {
    makeRecordings(argv[2]);
    return 0;
  }
  std::string name;
  while (std::getline(std::cin, name)) {
    int open = 0;
    int refused = 0;
    for (const Door& door : doors()) {
      // Where it ends without a word is the last line.
      std::cout << name << ": " << door.name << std::endl;
      try {
        door.enter(Path::fromNarrow(name));
        ++open;
      } catch (const std::exception& error) {
        ++refused;
        if (*error.what() == '\0') {
          std::cerr << name << ": " << door.name << ": refused without a word\n";
          return 1;
        }
      }
    }
    std::cout << "done " << open << ' ' << refused << std::endl;
  }
  return 0;
}
