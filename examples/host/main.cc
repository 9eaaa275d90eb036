// A host of the library, start to end: it installs its object system, lets the library register its
// methods, runs a user's script that sets the options, records a simulation in both storage modes,
// and exports the signals as one table.
//
//     example_host SCRIPT FOLDER

#include <arrow/status.h>
#include <kyr/host/ReferenceHost.h>
#include <kyr/host/Registration.h>
#include <kyr/parquet/ParquetExportSerializerWorker.h>
#include <kyr/parquet/ParquetSignal.h>
#include <kyr/parquet/SignalPool.h>
#include <kyr/parquet/StreamableSignal.h>
#include <kyr/platform/FeatureFlag.h>
#include <kyr/recording/Recording.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Script.h"

namespace {

namespace fs = std::filesystem;
using kyr::Path;
using kyr::parquet::SignalPool;
using kyr::recording::SignalDescription;

const std::vector<SignalDescription> kSignals{
    {1, "position", "m", "of the mass, from its rest", {}},
    {2, "velocity", "m/s", "", {}},
};

constexpr double kStep = 1e-3;  // [s]
constexpr int kSteps = 20000;

// A damped oscillator.
struct Sample {
  double time;
  double values[2];
};

Sample step(int number) {
  const double t = number * kStep;
  const double decay = std::exp(-0.2 * t);
  return {t, {decay * std::cos(5 * t), -decay * (5 * std::sin(5 * t) + 0.2 * std::cos(5 * t))}};
}

std::vector<double> times() {
  std::vector<double> all;
  all.reserve(kSteps);
  for (int i = 0; i < kSteps; ++i) all.push_back(step(i).time);
  return all;
}

// The samples of one signal, as bytes.
std::vector<char> bytesOf(std::size_t signal) {
  std::vector<char> bytes(kSteps * sizeof(double));
  for (int i = 0; i < kSteps; ++i) {
    const double value = step(i).values[signal];
    std::memcpy(&bytes[static_cast<std::size_t>(i) * sizeof(double)], &value, sizeof(double));
  }
  return bytes;
}

void requireWritten(const ::arrow::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.ToString());
}

// Each signal whole, when the simulation has ended.
void recordWhole(const fs::path& folder) {
  SignalPool pool;
  const std::vector<double> time = times();
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    const auto signal = pool.getSignal(kSignals[i].signalId);
    signal->setDataType(kyr::Double);
    signal->setCategory(kyr::Scalar);
    signal->setData(time, bytesOf(i), {}, {});
    requireWritten(signal->writeStatus());
  }
  kyr::recording::saveRecording(pool, kSignals, Path::fromFilesystem(folder));
}

// Sample by sample while the simulation runs, in row groups of 4096 rows. One signal records the
// time; where all of them do, they share its file.
void recordStreamed(const fs::path& folder) {
  kyr::FeatureFlag::set("fKYRUseParquetRowGroup", true);
  SignalPool pool;
  std::vector<std::shared_ptr<kyr::parquet::StreamableSignal>> signals;
  for (const SignalDescription& description : kSignals) {
    signals.push_back(pool.getStreamableSignal(description.signalId));
    signals.back()->setDataType(kyr::Double);
    signals.back()->setCategory(kyr::Scalar);
    signals.back()->setBufferSize(4096);
  }
  for (int i = 0; i < kSteps; ++i) {
    const Sample sample = step(i);
    signals[0]->appendTime(&sample.time, 1);
    for (std::size_t k = 0; k < signals.size(); ++k) {
      signals[k]->appendData(&sample.values[k], sizeof(double), {}, {});
    }
  }
  for (const auto& signal : signals) {
    signal->finish();
    requireWritten(signal->writeStatus());
  }
  kyr::recording::saveRecording(pool, kSignals, Path::fromFilesystem(folder));
  kyr::FeatureFlag::set("fKYRUseParquetRowGroup", false);
}

// What a recording holds, as one table with a time column.
void exportTable(const fs::path& recording, const fs::path& file) {
  using kyr::parquet::ParquetExportSerializerWorker;
  kyr::recording::Recording opened = kyr::recording::openRecording(Path::fromFilesystem(recording));
  std::vector<ParquetExportSerializerWorker::Column> columns;
  std::vector<ParquetExportSerializerWorker::Signal> signals;
  for (const SignalDescription& description : kSignals) {
    std::vector<double> time;
    std::vector<char> bytes;
    std::vector<std::vector<std::size_t>> dimensions;
    opened.pool().getSignal(description.signalId)->getData(time, bytes, dimensions);
    columns.emplace_back(kyr::Scalar, kyr::Double, columns.empty(), description.name);
    signals.emplace_back(description.name, time, bytes, std::vector<std::vector<int>>(),
                         kyr::Double);
  }
  ParquetExportSerializerWorker worker;
  auto arrays = worker.buildArray(signals);
  for (std::size_t i = signals.size(); i-- > 1;) {  // the time of the first one stands for all
    arrays.erase(arrays.begin() + static_cast<std::ptrdiff_t>(2 * i));
  }
  fs::remove(file);
  worker.write(*worker.buildTable(worker.getExportSchema(columns), arrays),
               Path::fromFilesystem(file).text());
  requireWritten(worker.writeStatus());
}

void run(const char* script, const fs::path& folder) {
  kyr::host::ReferenceHost host;
  kyr_install_host(&host);
  VXInitialize_kyr_parquet_serialization();
  std::ifstream lines(script);
  if (!lines) throw std::runtime_error(std::string(script) + " cannot be read");
  runScript(host, lines, std::cout);

  fs::create_directories(folder);
  recordWhole(folder / "whole");
  recordStreamed(folder / "streamed");
  exportTable(folder / "whole", folder / "table.parquet");
  for (const char* name : {"whole", "streamed"}) {
    const Path path = Path::fromFilesystem(folder / name);
    if (!kyr::recording::verifyRecording(path).empty()) {
      throw std::runtime_error(std::string(name) + " is not as it was recorded");
    }
    for (const auto& signal : kyr::recording::describeRecording(path).signals) {
      std::cout << name << ": " << signal.name << " [" << signal.unit << "], " << signal.rowCount
                << " samples\n";
    }
  }
  std::cout << "table.parquet: " << fs::file_size(folder / "table.parquet") << " bytes\n";
  kyr_install_host(nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: example_host SCRIPT FOLDER\n";
    return 2;
  }
  try {
    run(argv[1], argv[2]);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "example_host: " << error.what() << '\n';
    return 1;
  }
}
