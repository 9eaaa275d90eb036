#pragma once

#include <gmock/gmock.h>

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "support/StorageTest.h"

namespace kyr::recording {
namespace fs = std::filesystem;
}

namespace kyr::test {

/// What a call throws; empty if it does not.
inline std::string errorOf(const std::function<void()>& call) {
  try {
    call();
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

/// A pool, and the recording "rec" beside other things in a temporary directory.
class RecordingTest : public StorageTest {
 protected:
  static Samples ramp(const std::vector<short>& values) {
    std::vector<double> time(values.size());
    for (std::size_t i = 0; i < time.size(); ++i) time[i] = double(i);
    return {time, bytesOf(values), {}, {}};
  }

  static std::shared_ptr<parquet::ParquetSignal> put(parquet::SignalPool& into, int id,
                                                     const Samples& samples,
                                                     KYRSignalDataType type = Int16,
                                                     KYRSignalCategory category = Scalar) {
    auto signal = into.getSignal(id);
    signal->setDataType(type);
    signal->setCategory(category);
    test::write(*signal, samples);
    return signal;
  }

  using Descriptions = std::vector<recording::SignalDescription>;

  void save(const fs::path& folder) { save(pool, {}, folder); }
  static void save(parquet::SignalPool& from, const Descriptions& descriptions,
                   const fs::path& folder) {
    recording::saveRecording(from, descriptions, Path::fromFilesystem(folder));
  }
  static recording::Recording open(const fs::path& folder) {
    return recording::openRecording(Path::fromFilesystem(folder));
  }

  /// The faults that verifyRecording() finds, thrown or told, one to a line.
  static std::string faults(const fs::path& folder) {
    std::string lines;
    try {
      for (const auto& line : recording::verifyRecording(Path::fromFilesystem(folder))) {
        lines += line + "\n";
      }
    } catch (const std::runtime_error& error) {
      lines = error.what();
    }
    return lines;
  }

  /// Leaves the recording as a crash of its writer now would.
  /// \param endWriter  closes it, and what it writes then is not there
  void crashBefore(const std::function<void()>& endWriter) {
    const fs::path copy = temp.file("crashed");
    fs::copy(rec, copy, fs::copy_options::recursive);
    endWriter();
    fs::remove_all(rec);
    fs::rename(copy, rec);
  }

  /// Gives a recording files that no pool shares, so that a test may damage them.
  static void unshare(const fs::path& folder) {
    const fs::path copy = folder.string() + ".copy";
    fs::copy(folder, copy, fs::copy_options::recursive);
    fs::remove_all(folder);
    fs::rename(copy, folder);
  }

  /// The content of every file below \p folder, and every folder and link.
  static std::map<std::string, std::string> everythingIn(const fs::path& folder) {
    std::map<std::string, std::string> result;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      const std::string name = fs::relative(entry.path(), folder);
      result[name] = entry.is_regular_file() ? Folder(folder).contents(name) : "";
    }
    return result;
  }

  parquet::SignalPool pool{store.path()};
  const fs::path rec = temp.file("rec");
};

}  // namespace kyr::test
