#include <fmt/format.h>

#include <functional>
#include <stdexcept>

#include "files/growing/BatchRecord.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"
#include "platform/DiskFile.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"
#include "support/FaultyDisk.h"
#include "support/ParquetFiles.h"

// What recovery does with damage: it never takes it for sound data, and throws nothing away.

namespace kyr::recording {
namespace {

using test::errorOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using Values = std::vector<double>;

class Recoveries : public test::RecordingTest {
 protected:
  Recoveries() { options.storage.batchRows = 16; }

  RecoveryResult recover() const { return recoverRecording(Path::fromFilesystem(rec)); }
  test::Folder folder() const { return test::Folder(rec); }

  // Signals 1 and 2, whose sample i is i and 2 i, at the time i / 10.
  void begin() {
    live = std::make_unique<LiveRecording>(Path::fromFilesystem(rec), options);
    for (const int id : {1, 2}) {
      streams.push_back(
          live->addSignal({id, fmt::format("signal {}", id), "", "", {}}, Double, Scalar));
    }
  }
  void append(int from, int to) {
    for (int i = from; i < to; ++i) {
      const double time = i / 10.0;
      for (std::size_t s = 0; s < streams.size(); ++s) {
        const double value = i * double(s + 1);
        streams[s]->appendTime(&time, 1);
        streams[s]->appendData(&value, sizeof(value), {}, {});
      }
    }
  }
  // Leaves the folder as a crash now would.
  void crash() {
    crashBefore([this] {
      streams.clear();
      live.reset();
    });
  }
  std::string storageOf(int signal, bool isTime) const {
    const RecordingReader reader(Path::fromFilesystem(rec));
    const SignalInfo& info = reader.signal(signal);
    return fmt::format("storage/{}.parquet", isTime ? *info.timeStorageId : *info.dataStorageId);
  }
  void flip(const std::string& name, std::uint64_t at) const {
    DiskFile file(rec / name, DiskFile::Mode::readWrite);
    char byte = 0;
    file.readAt(at, &byte, 1);
    byte = static_cast<char>(byte ^ 0x40);
    file.writeAt(at, {std::string_view(&byte, 1)});
  }
  // Where the record of batch \p index of a growing file begins.
  std::uint64_t recordAt(const std::string& name, int index) const {
    const DiskFile file(rec / name, DiskFile::Mode::readOnly);
    std::uint64_t at = 4;
    for (; index > 0; --index) {
      at = readRecord(file, parquet::RecordKind::batch, at, file.size())->header.end();
    }
    return at;
  }

  // The recording is sound, and all rows that it has are right.
  void expectSound() {
    EXPECT_EQ(faults(rec), "");
    const RecordingReader reader(Path::fromFilesystem(rec));
    for (const SignalInfo& signal : reader.signals()) {
      const SampleRows rows = reader.read(signal.signalId);
      for (std::size_t i = 0; i < rows.times.size(); ++i) ASSERT_EQ(rows.times[i], double(i) / 10);
      for (std::size_t i = 0; i < rows.bytes.size() / sizeof(double); ++i) {
        double value = 0;
        std::memcpy(&value, &rows.bytes[i * sizeof(double)], sizeof(double));
        ASSERT_EQ(value, double(i) * signal.signalId);
      }
    }
  }
  static std::string textOf(const RecoveryResult& result) {
    std::string text;
    for (const std::string& note : result.notes) text += note + "\n";
    return text;
  }

  LiveOptions options;
  std::unique_ptr<LiveRecording> live;
  std::vector<std::shared_ptr<parquet::StreamableSignal>> streams;
};

TEST_F(Recoveries, EveryBatchIsComparedAlsoBehindADamagedFirstRecord) {
  for (const bool finishes : {false, true}) {
    SCOPED_TRACE(finishes);
    begin();
    append(0, 100);
    live->flush();
    if (finishes) live->finish();
    const std::string file = storageOf(2, false);
    crash();
    if (finishes) fs::remove(rec / "recording.json");
    const std::uint64_t third = recordAt(file, 3);
    flip(file, recordAt(file, 0) + 30);
    flip(file, third + 120);
    const std::string damaged = folder().contents(file);
    const RecoveryResult result = recover();
    EXPECT_EQ(result.signals.at(1).rowsKept, 32U);
    EXPECT_TRUE(result.hasLosses());
    EXPECT_THAT(textOf(result), HasSubstr(file));
    EXPECT_EQ(folder().contents("lost" + file.substr(file.rfind('/'))), damaged);
    expectSound();
    fs::remove_all(rec);
  }
}

TEST_F(Recoveries, RowsBehindADamagedJournalAreKeptAndTold) {
  struct {
    const char* name;
    std::function<void(std::string& journal)> damage;
    std::uint64_t unacknowledged;
  } const cases[] = {
      {"damaged line", [](std::string& text) { text[text.size() - 5] ^= 1; }, 48},
      {"torn line", [](std::string& text) { text.resize(text.size() - 3); }, 48},
      {"no line", [](std::string& text) { text = "x"; }, 0},
      {"empty", [](std::string& text) { text.clear(); }, 0},
  };
  for (const auto& [name, damage, unacknowledged] : cases) {
    SCOPED_TRACE(name);
    begin();
    append(0, 48);
    live->flush();
    append(48, 96);
    live->flush();
    crash();
    std::string journal = folder().contents("recording.journal");
    damage(journal);
    folder().touch("recording.journal", journal);
    const RecoveryResult result = recover();
    for (const RecoveredSignal& signal : result.signals) {
      EXPECT_EQ(signal.rowsKept, 96U);
      EXPECT_EQ(signal.rowsUnacknowledged, unacknowledged);
    }
    EXPECT_TRUE(result.hasLosses());
    EXPECT_THAT(textOf(result), HasSubstr("recording.journal"));
    expectSound();
    fs::remove_all(rec);
  }
}

// The last line counts the first rows of a part of signal 3, whose times are in a file of others.
TEST_F(Recoveries, NewPartsBehindADamagedJournalAreKeptWithoutHarmToOthers) {
  struct {
    const char* name;
    int times, samples;  // that were acknowledged
    std::uint64_t timesKept, samplesKept;
  } const cases[] = {
      {"neither", 0, 0, 30, 30}, {"times alone", 20, 0, 20, 0}, {"samples alone", 0, 20, 0, 30}};
  for (const auto& [name, times, samples, timesKept, samplesKept] : cases) {
    SCOPED_TRACE(name);
    begin();
    auto third = live->addSignal({3, "third", "", "", {}}, Double, Scalar);
    const auto appendTimes = [&](int from, int to) {
      for (int i = from; i < to; ++i) {
        const double time = i / 10.0;
        third->appendTime(&time, 1);
      }
    };
    const auto appendSamples = [&](int from, int to) {
      for (int i = from; i < to; ++i) {
        const double value = 3 * i;
        third->appendData(&value, sizeof(value), {}, {});
      }
    };
    append(0, 48);
    appendTimes(0, times);
    appendSamples(0, samples);
    live->flush();
    append(48, 96);
    appendTimes(times, 40);
    appendSamples(samples, 30);
    live->flush();
    third.reset();
    crash();
    fs::resize_file(rec / "recording.journal", fs::file_size(rec / "recording.journal") - 3);
    recover();
    expectSound();
    const RecordingReader reader(Path::fromFilesystem(rec));
    EXPECT_EQ(reader.timeCount(3), timesKept);
    EXPECT_EQ(reader.sampleCount(3), samplesKept);
    for (const int id : {1, 2}) EXPECT_EQ(reader.sampleCount(id), 96U);
    fs::remove_all(rec);
  }
}

// Whoever syncs flushes never acknowledged a line that was not written as a whole.
TEST_F(Recoveries, TornLinesOfSyncedFlushesCountNothing) {
  options.storage.sync = parquet::SafeStorage::Sync::flush;
  for (const std::string& torn : {std::string("2 9 4"), std::string(40, '\0')}) {
    begin();
    append(0, 48);
    live->flush();
    const std::string journal = folder().contents("recording.journal");
    append(48, 96);
    live->flush();
    crash();
    folder().touch("recording.journal", journal + torn);
    const RecoveryResult result = recover();
    for (const RecoveredSignal& signal : result.signals) EXPECT_EQ(signal.rowsKept, 48U);
    EXPECT_FALSE(result.hasLosses()) << textOf(result);
    expectSound();
    fs::remove_all(rec);
  }
}

// A process may be killed between the list of its signals and the line of the first flush, or the
// lines of later flushes do not come to the disk. Other versions left an empty journal then.
TEST_F(Recoveries, RowsWithoutALineThatCountsThemAreKept) {
  for (const int rows : {0, 48}) {
    SCOPED_TRACE(rows);
    begin();
    const std::string journal = rows > 0 ? folder().contents("recording.journal") : "";
    append(0, rows);
    live->flush();
    crash();
    folder().touch("recording.journal", journal);
    const RecoveryResult result = recover();
    ASSERT_EQ(result.signals.size(), 2U);
    EXPECT_EQ(result.signals[0].rowsKept, std::uint64_t(rows));
    EXPECT_FALSE(result.hasLosses()) << textOf(result);
    expectSound();
    fs::remove_all(rec);
  }
}

// Signals that have the same samples so far share a file, and which of them has more is not known.
TEST_F(Recoveries, NothingIsCutBehindADamagedJournalBeforeItIsKeptAside) {
  begin();
  streams.pop_back();
  streams.push_back(live->addSignal({3, "the same", "", "", {}}, Double, Scalar));
  const auto appendOne = [&](std::size_t stream, int from, int to) {
    for (int i = from; i < to; ++i) {
      const double time = i / 10.0;
      const double value = i;
      streams[stream]->appendTime(&time, 1);
      streams[stream]->appendData(&value, sizeof(value), {}, {});
    }
  };
  for (const std::size_t stream : {0U, 1U}) appendOne(stream, 0, 48);
  live->flush();
  appendOne(0, 48, 96);
  live->flush();
  const std::string file = storageOf(1, false);
  ASSERT_EQ(storageOf(3, false), file);
  crash();
  fs::resize_file(rec / "recording.journal", fs::file_size(rec / "recording.journal") - 1);
  const std::string before = folder().contents(file);
  const RecoveryResult result = recover();
  EXPECT_EQ(result.signals.at(0).rowsKept, 48U);
  EXPECT_EQ(folder().contents("lost" + file.substr(file.rfind('/'))), before);
  EXPECT_THAT(textOf(result), HasSubstr("48 rows behind"));
  EXPECT_EQ(faults(rec), "");
}

// A pool that describes its signals in their files, which are no growing ones.
class SavedRecoveries : public Recoveries {
 protected:
  SavedRecoveries() {
    parquet::SafeStorage storage;
    parquet::SignalPool safe(storage);
    for (const int id : {1, 2}) {
      safe.describeSignal(id, fmt::format("signal {}", id), "");
      Values times;
      Values values;
      for (int i = 0; i < 100; ++i) {
        times.push_back(i / 10.0);
        values.push_back(i * double(id));
      }
      put(safe, id, {times, test::bytesOf(values), {}, {}}, Double);
    }
    save(safe, {}, rec);
    unshare(rec);
  }
};

TEST_F(SavedRecoveries, SamplesWhoseTimesAreLostAreKept) {
  const std::string file = storageOf(1, true);
  fs::remove(rec / "recording.json");
  folder().touch(file, "PAR1" + std::string(20, 'x') + folder().contents(file).substr(24));
  const RecoveryResult result = recover();
  EXPECT_THAT(textOf(result), HasSubstr(file));
  EXPECT_TRUE(result.hasLosses());
  EXPECT_TRUE(fs::exists(rec / ("lost" + file.substr(file.rfind('/')))));
  ASSERT_EQ(result.signals.size(), 2U);
  for (const RecoveredSignal& signal : result.signals) EXPECT_EQ(signal.rowsKept, 100U);
  expectSound();
  EXPECT_FALSE(describeRecording(Path::fromFilesystem(rec)).signals[0].timeStorageId);
}

// No page and no batch shows that a bit of plain values is another.
TEST_F(SavedRecoveries, StatedChecksumsAreUsedAlsoOfADamagedDescription) {
  const std::string file = storageOf(2, false);
  flip(file, 300);
  std::string text = folder().contents("recording.json");
  const std::size_t at = text.find("\"rowCount\": 100", text.find("\"signals\""));
  folder().touch("recording.json", text.replace(at, 15, "\"rowCount\": 101"));
  const RecoveryResult result = recover();
  EXPECT_THAT(textOf(result), HasSubstr(file + " is damaged"));
  EXPECT_TRUE(fs::exists(rec / ("lost" + file.substr(file.rfind('/')))));
  EXPECT_EQ(result.signals.at(0).rowsKept, 100U);
  EXPECT_EQ(result.signals.at(1).rowsKept, 0U);
  expectSound();
}

// A crash may leave a table of signals that does not belong to recording.json. A recovery writes it
// anew, and so does the next change.
TEST_F(SavedRecoveries, ATableOfSignalsThatIsMissingOrOldIsWrittenAnew) {
  const std::string sound = folder().contents("signals.parquet");
  const std::string description = folder().contents("recording.json");
  for (const char* left : {"", "PAR1"}) {
    fs::remove(rec / "signals.parquet");
    if (*left != '\0') folder().touch("signals.parquet", left);
    EXPECT_THAT(faults(rec), HasSubstr("signals.parquet: "));
    EXPECT_EQ(open(rec).info().signals.size(), 2U);
    if (*left == '\0') {
      EXPECT_FALSE(recover().hasLosses());
    } else {
      updateRecording(Path::fromFilesystem(rec), {}, open(rec).info().attributes);
    }
    EXPECT_EQ(folder().contents("signals.parquet"), sound);
    EXPECT_EQ(folder().contents("recording.json"), description);
    EXPECT_TRUE(recover().wasComplete);
  }
}

TEST_F(SavedRecoveries, FilesThatDoNotSayWhatTheyAreAreKeptAsideAndNamed) {
  test::writeForeignFile(
      rec / "storage/77.parquet",
      *test::tableOf({{"data", test::column(::arrow::float64(), {"[1, 2, 3]"})}}));
  fs::remove(rec / "recording.json");
  const RecoveryResult result = recover();
  EXPECT_EQ(result.signals.size(), 2U);
  EXPECT_THAT(textOf(result), HasSubstr("storage/77.parquet"));
  EXPECT_TRUE(fs::exists(rec / "lost/77.parquet"));
  expectSound();
}

// A read that fails says nothing of the file.
TEST_F(SavedRecoveries, FailuresOfTheSystemEndTheCallWithNothingChanged) {
  fs::remove(rec / "recording.json");
  // The table comes shortly before the last change, which is recording.json.
  const auto everything = [this] {
    auto files = everythingIn(rec);
    files.erase("signals.parquet");
    return files;
  };
  const auto before = everything();
  int failed = 0;
  for (int call = 1;; ++call) {
    test::faultyDisk::Plan plan;
    plan.failAt = call;
    plan.error = EIO;
    test::faultyDisk::start(plan);
    std::string error;
    try {
      recover();
    } catch (const std::system_error& thrown) {
      error = thrown.what();
    } catch (const std::exception& thrown) {
      ADD_FAILURE() << "call " << call << ": " << thrown.what();
      error = thrown.what();
    }
    test::faultyDisk::stop();
    if (error.empty()) break;
    ++failed;
    if (fs::exists(rec / "recording.json")) {  // the failure came behind the last change
      fs::remove(rec / "recording.json");
      continue;
    }
    ASSERT_FALSE(fs::exists(rec / "lost")) << call;
    ASSERT_EQ(everything(), before) << call;
  }
  EXPECT_GT(failed, 20);
  expectSound();
}

// Recovery cuts, makes and removes files. Those of others, to which links lead, stay as they are.
TEST_F(Recoveries, NothingIsChangedBehindALink) {
  begin();
  append(0, 40);
  live->flush();
  append(40, 60);
  crash();
  const fs::path others = temp.file("others");
  fs::rename(rec, others);
  const auto before = everythingIn(others);
  for (const char* name :
       {"storage", "storage/1.parquet", "lost", "recording.journal", "recording.live.json"}) {
    SCOPED_TRACE(name);
    fs::remove_all(rec);
    fs::copy(others, rec, fs::copy_options::recursive);
    fs::remove_all(rec / name);
    fs::create_symlink(fs::exists(others / name) ? others / name : others, rec / name);
    try {
      // A link in the place of a file counts as a file that is missing.
      EXPECT_TRUE(recover().hasLosses());
      EXPECT_EQ(faults(rec), "");
      EXPECT_TRUE(fs::is_symlink(rec / "lost/1.parquet"));
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr("is a symbolic link"));
      EXPECT_TRUE(fs::is_symlink(rec / name));
    }
    EXPECT_EQ(everythingIn(others), before);
  }
}

TEST_F(Recoveries, WhatOthersPutIntoTheStorageIsMovedToLost) {
  begin();
  append(0, 40);
  live->flush();
  crash();
  folder().touch("storage/notes.txt", "mine");
  EXPECT_THAT(recover().notes, Contains(HasSubstr("storage/notes.txt")));
  EXPECT_EQ(folder().contents("lost/notes.txt"), "mine");
}

}  // namespace
}  // namespace kyr::recording
