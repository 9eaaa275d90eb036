// Writes recordings for those who test with files: see the two modes in main().
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/recording/Recording.h"
#include "recording/SampleSignals.h"

namespace {

namespace fs = std::filesystem;
using namespace kyr;

// The signals of sampleSignals() and one that was never written: as the recordings OUT/recording
// and, streamed, OUT/streamed, and as the working storage of both, OUT/storage/recording and so on.
void writeSamples(const fs::path& out) {
  const auto signals = test::sampleSignals();
  auto descriptions = test::descriptionsOf(signals);
  descriptions.push_back({1000, "never written", "", "", {}});
  fs::create_directories(out / "storage");
  for (const std::string name : {"recording", "streamed"}) {
    FeatureFlag::set("fKYRUseParquetRowGroup", name == "streamed");
    const fs::path working = out / "working" / name;
    parquet::SignalPool pool(Path::fromFilesystem(working));
    test::storeSignals(pool, signals);
    recording::saveRecording(pool, descriptions, Path::fromFilesystem(out / name));
    fs::copy(working, out / "storage" / name);  // the pool takes its own files along when it goes
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

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2) {
    writeSamples(argv[1]);
  } else if (argc == 4) {
    saveTakes(Path::fromNarrow(argv[1]), std::stoi(argv[2]), std::stoi(argv[3]));
  } else {
    std::cerr << "usage: kyr_sample_writer OUT | FOLDER FIRST-TAKE DELAY-IN-MICROSECONDS\n";
    return 2;
  }
  return 0;
}
