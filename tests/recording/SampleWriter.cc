// Writes recordings for those who test with files: see the modes in main().
#include <arrow/api.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/StreamableWriter.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/recording/Recording.h"
#include "recording/SampleSignals.h"

namespace {

namespace fs = std::filesystem;
using namespace kyr;

// Writes the signals of sampleSignals() and one without samples: as the recording OUT/recording, as
// the streamed recordings OUT/streamed and OUT/packed, and as the working storage of each, such as
// OUT/storage/recording.
void writeSamples(const fs::path& out) {
  const auto signals = test::sampleSignals();
  auto descriptions = test::descriptionsOf(signals);
  descriptions.push_back({1000, "never written", "", "", {}});
  fs::create_directories(out / "storage");
  for (const std::string name : {"recording", "streamed", "packed"}) {
    FeatureFlag::set("fKYRUseParquetRowGroup", name != "recording");
    recording::SaveOptions options;
    options.packBelow = name == "packed" ? 1000 : 0;
    const fs::path working = out / "working" / name;
    parquet::SignalPool pool(Path::fromFilesystem(working));
    test::storeSignals(pool, signals);
    recording::saveRecording(pool, descriptions, Path::fromFilesystem(out / name), options);
    fs::copy(working, out / "storage" / name);  // the pool deletes its own files
  }
}

// Saves take after take over the same recording: one signal whose samples are all the take's
// number, which is printed once the take is saved. The process kills itself \p delay_us after the
// first.
[[noreturn]] void saveTakes(const Path& folder, int first, int delay_us) {
  for (int take = first;; ++take) {
    parquet::SignalPool pool;
    const auto signal = pool.getSignal(1);
    signal->setDataType(Int32);
    signal->setCategory(Scalar);
    signal->setData(std::vector<double>(100), test::bytesOf(std::vector<int>(100, take)), {}, {});
    recording::saveRecording(pool, {{1, std::to_string(take), "", "", {}}}, folder);
    std::cout << take << std::endl;
    if (take > first) continue;
    std::thread([delay_us] {
      std::this_thread::sleep_for(std::chrono::microseconds(delay_us));
      kill(getpid(), SIGKILL);
    }).detach();
  }
}

// Prints what a writer makes of a directory of files that others wrote: for each id its name, all
// its values, and those of rows 2 and 3.
void printAdopted(const Path& directory) {
  parquet::StreamableWriter writer(directory);
  writer.preserveDirectory(true);
  std::vector<int> ids = writer.getAllParquetStorageIDs();
  std::sort(ids.begin(), ids.end());
  for (const int id : ids) {
    std::cout << id << ' ' << writer.getFileName(id);
    for (const auto to : {std::numeric_limits<unsigned long>::max(), 4UL}) {
      const auto rows = writer.read(id, to == 4 ? 2 : 0, to);
      const auto values = rows->CombineChunks().ValueOrDie()->column(0);
      std::cout << (to == 4 ? " |" : "");
      for (std::int64_t i = 0; i < values->length(); ++i) {
        std::cout << ' ' << values->GetScalar(i).ValueOrDie()->ToString();
      }
    }
    std::cout << '\n';
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--adopt") {
    printAdopted(Path::fromNarrow(argv[2]));
  } else if (argc == 2) {
    writeSamples(argv[1]);
  } else if (argc == 4) {
    saveTakes(Path::fromNarrow(argv[1]), std::stoi(argv[2]), std::stoi(argv[3]));
  } else {
    std::cerr << "usage: kyr_sample_writer OUT | --adopt DIRECTORY | FOLDER FIRST-TAKE "
                 "DELAY-IN-MICROSECONDS\n";
    return 2;
  }
  return 0;
}
