// The programs of powercut_test.py:
//
//   live FOLDER      records takes of 3 rows and flushes each, and prints what was acknowledged. A
//                    call that fails is made again, once
//   unsynced FOLDER  does the same without waiting for the disk
//   restarted FOLDER does the same with so little memory that rows leave it early. The first signal
//                    forgets its rows once and begins again
//   save FOLDER      saves 40 rows, in the place of an older recording
//   check            takes lines "read FOLDER" and "recover FOLDER", and answers each with a line:
//                    "rows" and how many rows each signal has, "refused" and why, or "wrong" and
//                    what
//
// Row i of a signal is the same in all recordings, so that a row that is not what was written
// shows.
#include <unistd.h>

#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"

namespace {

using namespace kyr;
using namespace kyr::recording;
using parquet::StreamableSignal;

struct Kind {
  SignalDescription description;
  KYRSignalDataType type;
  KYRSignalCategory category;
};

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> kKinds{
      {{0, "number", "m", "", {}}, Double, Scalar},
      {{1, "matrix", "", "", {2, 2}}, Int8, FixedDim},
      {{2, "varying", "", "", {}}, Single, VarDim},
      {{3, "blob", "", "", {}}, Binary, Scalar},
  };
  return kKinds;
}

struct Sample {
  std::string bytes;
  std::vector<std::vector<unsigned long>> shape;
  std::vector<int> sizes;
};

template <typename T>
std::string bytesOf(const std::vector<T>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)};
}

double timeOf(std::size_t row) { return double(row) / 2; }

Sample sampleOf(int id, std::size_t row) {
  const std::size_t count = row % 3 + 1;
  if (id == 0) return {bytesOf(std::vector<double>{double(row % 7) + 0.5}), {}, {}};
  if (id == 1) return {bytesOf(std::vector<std::int8_t>{1, 2, 3, std::int8_t(row)}), {{2, 2}}, {}};
  if (id == 2) return {bytesOf(std::vector<float>(2 * count, float(row))), {{2, count}}, {}};
  return {std::string(count, char('a' + row % 20)), {}, {int(count)}};
}

// Not through a stream, whose buffer nobody sees.
void print(const std::string& line) {
  const std::string text = line + "\n";
  if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) throw std::runtime_error("no output");
}

void twice(const std::function<void()>& work) {
  try {
    return work();
  } catch (const std::exception& error) {
    print(std::string("failed ") + error.what());
  }
  work();
}

void append(StreamableSignal& signal, int id, std::size_t from, std::size_t to) {
  for (std::size_t row = from; row < to; ++row) {
    const double time = timeOf(row);
    const Sample sample = sampleOf(id, row);
    twice([&] { signal.appendTime(&time, 1); });
    twice([&] {
      signal.appendData(sample.bytes.data(), sample.bytes.size(), sample.shape, sample.sizes);
    });
  }
}

void recordTakes(const Path& folder, parquet::SafeStorage::Sync sync, bool restarts) {
  constexpr std::size_t kTakes = 12;
  constexpr std::size_t kRows = 3;
  LiveOptions options;
  options.storage.sync = sync;
  // Takes go to growing packs, batches to files, and packs are replaced.
  options.storage.batchRows = 16;
  options.storage.batchBytes = 200;
  if (restarts) options.storage.memoryTotal = 250;
  std::unique_ptr<LiveRecording> live;
  twice([&] { live = std::make_unique<LiveRecording>(folder, options); });
  std::vector<std::shared_ptr<StreamableSignal>> signals;
  for (const Kind& kind : kinds()) {
    signals.push_back(live->addSignal(kind.description, kind.type, kind.category));
  }
  std::size_t firstTake = 0;  // of the first signal
  for (std::size_t take = 0; take < kTakes; ++take) {
    if (restarts && take == kTakes / 2) {
      signals[0]->resetData();
      firstTake = take;
    }
    for (std::size_t i = 0; i < signals.size(); ++i) {
      const std::size_t at = (i == 0 ? take - firstTake : take) * kRows;
      append(*signals[i], kinds()[i].description.signalId, at, at + kRows);
    }
    twice([&] { live->flush(); });
    print("acknowledged " + std::to_string((take + 1) * kRows));
  }
  signals.clear();
  twice([&] { live->finish(); });
  print("finished");
}

void save(const Path& folder) {
  parquet::SignalPool pool{parquet::SafeStorage()};
  std::vector<SignalDescription> descriptions;
  for (const Kind& kind : kinds()) {
    descriptions.push_back(kind.description);
    const auto signal = pool.getStreamableSignal(kind.description.signalId);
    signal->setDataType(kind.type);
    signal->setCategory(kind.category);
    append(*signal, kind.description.signalId, 0, 40);
  }
  saveRecording(pool, descriptions, folder);
  print("saved");
}

// The rows of a signal with times and samples, compared with those that were written.
std::size_t compare(const RecordingReader& reader, const SignalInfo& signal) {
  const auto fail = [&](const char* what) {
    throw std::domain_error("signal " + std::to_string(signal.signalId) + ": " + what);
  };
  const SampleRows rows = reader.read(signal.signalId);
  const std::size_t count = static_cast<std::size_t>(signal.rowCount);
  std::string bytes;
  std::vector<std::vector<unsigned long>> shapes;
  for (std::size_t row = 0; row < count; ++row) {
    const Sample sample = sampleOf(signal.signalId, row);
    bytes += sample.bytes;
    shapes.insert(shapes.end(), sample.shape.begin(), sample.shape.end());
  }
  if (!rows.times.empty()) {
    if (rows.times.size() != count) fail("other times than samples");
    for (std::size_t row = 0; row < count; ++row) {
      if (rows.times[row] != timeOf(row)) fail("a wrong time");
    }
  }
  if (!signal.dataStorageId) return 0;
  if (std::string(rows.bytes.data(), rows.bytes.size()) != bytes) fail("a wrong sample");
  if (signal.category == VarDim && rows.dimensions != shapes) fail("a wrong shape");
  return rows.times.empty() ? 0 : count;
}

std::string check(const std::string& how, const Path& folder) {
  try {
    if (how == "recover") recoverRecording(folder);
    for (const std::string& fault : verifyRecording(folder)) {
      if (fault.find("no record names it") == std::string::npos) return "wrong " + fault;
    }
    const RecordingReader reader(folder);
    std::vector<std::size_t> counts(kinds().size(), 0);
    for (const SignalInfo& signal : reader.signals()) {
      counts.at(static_cast<std::size_t>(signal.signalId)) = compare(reader, signal);
    }
    std::string line = "rows";
    for (const std::size_t count : counts) line += " " + std::to_string(count);
    return line;
  } catch (const std::logic_error& error) {
    return std::string("wrong ") + error.what();
  } catch (const std::exception& error) {
    return std::string("refused ") + error.what();
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  try {
    using Sync = parquet::SafeStorage::Sync;
    if (what == "live") recordTakes(Path::fromNarrow(argv[2]), Sync::flush, false);
    if (what == "unsynced") recordTakes(Path::fromNarrow(argv[2]), Sync::never, false);
    if (what == "restarted") recordTakes(Path::fromNarrow(argv[2]), Sync::flush, true);
    if (what == "save") save(Path::fromNarrow(argv[2]));
    std::string how;
    std::string folder;
    while (what == "check" && std::cin >> how >> folder)
      print(check(how, Path::fromNarrow(folder)));
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
  return 0;
}
