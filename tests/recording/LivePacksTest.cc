#include "recording/LivePacksTest.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>
#include <parquet/properties.h>

#include <fstream>
#include <set>

#include "files/growing/GrowingFile.h"
#include "files/pack/GrowingPack.h"
#include "files/pack/PackSchema.h"
#include "kyr/recording/Recovery.h"
#include "platform/DiskFile.h"
#include "recording/LiveFormat.h"
#include "recording/SampleSignals.h"

// Rows of many signals between two flushes lie together in growing packs.

namespace kyr::recording {
namespace {

using test::bytesOf;
using test::errorOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Few rows go to the pack, full batches to files, and the packs that most rows have left are
// replaced. A reader that is open all the while, and a new one, see every row after each flush.
TEST_F(LivePacksTest, EveryRowIsReadWhereverItIs) {
  begin(60);
  RecordingReader along(path());
  std::set<std::string> packs;
  constexpr int kRows = 150;
  std::vector<int> rows(streams.size(), 0);
  for (int flush = 0; flush < 260; ++flush) {
    for (std::size_t i = 0; i < streams.size(); ++i) {
      if (i % 7 == 3 && flush % 3 != 0) continue;  // some are slower
      append(i, rows[i], rows[i] + kRows);
      rows[i] += kRows;
    }
    live->flush();
    for (const auto& name : stored()) {
      if (parquet::growingPackNumber(name)) packs.insert(name);
    }
    if (flush % 37 != 1) continue;
    ASSERT_TRUE(along.refresh());
    RecordingReader fresh(path());
    for (const int id : {1, 4, 30, 60}) {
      expectRows(along, id, std::uint64_t(rows[std::size_t(id) - 1]));
      expectRows(fresh, id, std::uint64_t(rows[std::size_t(id) - 1]));
    }
    const double t = rows[0] - 1.0;
    EXPECT_THAT(along.rowsBetween(1, t, t + 10),
                ElementsAre(RowRange{std::uint64_t(rows[0] - 1), std::uint64_t(rows[0])}));
  }
  EXPECT_GT(packs.size(), 1U);
  crash();
  const RecoveryResult result = recoverRecording(path());
  EXPECT_FALSE(result.hasLosses());
  EXPECT_EQ(faults(rec), "");
  RecordingReader recovered(path());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    expectRows(recovered, int(i) + 1, std::uint64_t(rows[i]));
  }
}

// Every type and category, also those with samples of many sizes.
TEST_F(LivePacksTest, EveryKindOfSampleGoesThroughPacks) {
  const auto signals = test::sampleSignals();
  options.storage.batchRows = 1 << 20U;
  for (const bool isFinished : {true, false}) {
    live = std::make_unique<LiveRecording>(path(), options);
    std::vector<const test::SampleSignal*> taken;
    for (const test::SampleSignal& signal : signals) {
      if (signal.samples.data.empty()) continue;
      SignalDescription description;
      description.signalId = int(taken.size()) + 1;
      const auto stream = live->addSignal(description, signal.type, signal.category);
      const test::Samples& samples = signal.samples;
      stream->appendTime(samples.time.data(), samples.time.size());
      stream->appendData(samples.data.data(), samples.data.size(), samples.dims, samples.lengths);
      taken.push_back(&signal);
      live->flush();
    }
    for (const std::string& name : stored()) EXPECT_TRUE(parquet::growingPackNumber(name)) << name;
    const auto expectAll = [&] {
      RecordingReader reader(path());
      for (std::size_t i = 0; i < taken.size(); ++i) {
        const SampleRows rows = reader.read(int(i) + 1, {0, 1U << 30U});
        EXPECT_EQ(rows.bytes, taken[i]->samples.data) << i;
        EXPECT_EQ(reader.times(int(i) + 1, {0, 1U << 30U}), taken[i]->samples.time) << i;
      }
    };
    expectAll();
    if (isFinished) {
      live->finish();
    } else {
      crash();
      EXPECT_FALSE(recoverRecording(path()).hasLosses());
    }
    EXPECT_EQ(faults(rec), "");
    expectAll();
    live.reset();
    fs::remove_all(rec);
  }
}

// Wherever a pack is cut off or damaged, what is recovered is right, and what is lost is told.
TEST_F(LivePacksTest, DamagedPacksAreNeverTakenForSound) {
  begin(3);
  for (int flush = 0; flush < 4; ++flush) {
    appendAll(flush * 5, flush * 5 + 5);
    live->flush();
  }
  crash();
  const fs::path sound = temp.file("sound");
  fs::rename(rec, sound);
  const fs::path pack = rec / "storage" / "live-0.parquet";
  const auto size = std::size_t(fs::file_size(sound / "storage" / "live-0.parquet"));
  ASSERT_EQ(test::Folder(sound / "storage").names(), test::Names{"live-0.parquet"});
  for (std::size_t at = 0; at < size; at += 61) {
    for (const bool isCut : {true, false}) {
      fs::copy(sound, rec, fs::copy_options::recursive);
      if (isCut) {
        fs::resize_file(pack, at);
      } else {
        DiskFile file(pack, DiskFile::Mode::readWrite);
        char byte = 0;
        file.readAt(at, &byte, 1);
        byte = char(byte ^ 0x20);
        file.writeAt(at, {{&byte, 1}});
      }
      std::uint64_t kept = 0;
      bool isTold = true;
      try {
        const RecoveryResult result = recoverRecording(path());
        kept = result.signals.at(0).rowsKept;
        EXPECT_EQ(result.signals.at(0).rowsLost, 20 - kept);
        isTold = result.hasLosses();
        RecordingReader reader(path());
        for (const int id : {1, 2, 3}) expectRows(reader, id, kept);
        EXPECT_EQ(faults(rec), "") << at;
      } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("no recording to be had")) << at;
      }
      EXPECT_EQ(kept % 5, 0U);
      EXPECT_TRUE(isTold || kept == 20) << at;
      fs::remove_all(rec);
    }
  }
}

// The packs alone tell the names, and how many rows there are.
TEST_F(LivePacksTest, RecoversWithoutTheListOfSignals) {
  begin(5);
  appendAll(0, 8);
  live->flush();
  crash();
  fs::remove(rec / "recording.live.json");
  fs::remove(rec / "recording.journal");
  EXPECT_TRUE(recoverRecording(path()).hasLosses());
  RecordingReader reader(path());
  EXPECT_EQ(reader.idOf("s3"), 3);
  EXPECT_EQ(reader.signal(5).unit, "V");
  for (int id = 1; id <= 5; ++id) expectRows(reader, id, 8);
}

// Many small contents are finished in packs, and an interrupted finish() is recovered.
TEST_F(LivePacksTest, ManySignalsAreFinishedInPacks) {
  const auto expectAll = [&] {
    EXPECT_EQ(faults(rec), "");
    RecordingReader reader(path());
    for (const int id : {1, 77, 400}) expectRows(reader, id, 5);
  };
  fs::path copy;
  for (const bool fails : {false, true}) {
    begin(400);
    appendAll(0, 3);
    live->flush();
    appendAll(3, 5);
    if (fails) {
      fs::create_directory(rec / "recording.json.new");
      EXPECT_THROW(live->finish(), std::exception);
      copy = temp.file("interrupted");
      fs::copy(rec, copy, fs::copy_options::recursive);
      fs::remove(rec / "recording.json.new");
    }
    live->finish();
    if (!fails) {
      EXPECT_EQ(stored(), test::Names{"pack-0.parquet"});
    }
    expectAll();
    streams.clear();
    fs::remove_all(rec);
  }
  fs::rename(copy, rec);
  fs::remove(rec / "recording.json.new");
  EXPECT_FALSE(recoverRecording(path()).hasLosses());
  expectAll();
}

// Samples of many sizes are read across the end of the file and the packs behind it.
TEST_F(LivePacksTest, ListsAreReadBehindTheirFile) {
  for (const std::size_t memory : {1U << 20U, 300U}) {
    SCOPED_TRACE(memory);
    options.storage.memoryTotal = memory;
    options.storage.batchRows = 40;
    begin(2);
    const auto stream = live->addSignal({3, "lists", "", "", {}}, Double, VarDim);
    Values all;
    const auto appendLists = [&](int count) {
      for (int i = 0; i < count; ++i) {
        const Values sample(all.size() % 3 + 1, double(all.size()));
        stream->appendData(sample.data(), sample.size() * sizeof(double), {{sample.size()}}, {});
        all.insert(all.end(), sample.begin(), sample.end());
      }
    };
    for (const int count : {45, 5, 6}) {
      appendLists(count);
      live->flush();
    }
    const auto expectAll = [&] {
      const SampleRows rows = RecordingReader(path()).read(3);
      EXPECT_EQ(rows.dimensions.size(), 56U);
      EXPECT_EQ(rows.bytes, bytesOf(all));
    };
    expectAll();
    crash();
    EXPECT_FALSE(recoverRecording(path()).hasLosses());
    expectAll();
    fs::remove_all(rec);
  }
}

// A crash while a content gets its file leaves its rows in the packs.
TEST_F(LivePacksTest, InterruptedFilesTakeNothingFromThePacks) {
  begin(2);
  streams[1]->appendTime(Values(7).data(), 7);  // as many zeros as a cut of the power may leave
  streams[1]->finish(parquet::StreamableSignal::SignalPart::time);
  streams[1]->resetData();
  const auto zeros = test::Folder(rec / "storage").contents("0.parquet");
  appendAll(0, 5);
  live->flush();
  crash();
  test::Folder(rec / "storage").touch("live-5.parquet", "PAR1");  // nor does a pack cut short
  const fs::path sound = temp.file("sound");
  fs::rename(rec, sound);
  const auto file =
      std::to_string(*RecordingReader(Path::fromFilesystem(sound)).signal(2).dataStorageId);
  for (const bool isWhole : {false, true}) {
    for (const std::string& left :
         {zeros, zeros.substr(0, zeros.size() / 2), std::string("PAR1"), std::string()}) {
      if (isWhole != (left.size() == zeros.size())) continue;
      fs::copy(sound, rec, fs::copy_options::recursive);
      std::ofstream(rec / "storage" / file, std::ios::binary) << left;
      if (!isWhole) {
        RecordingReader reader(path());
        expectRows(reader, 2, 5);
      }
      EXPECT_EQ(recoverRecording(path()).hasLosses(), isWhole) << left.size();
      EXPECT_EQ(faults(rec), "");
      RecordingReader reader(path());
      for (const int id : {1, 2}) expectRows(reader, id, 5);
      fs::remove_all(rec);
    }
  }
}

// A power cut may keep the end of a file and not the batch before it.
TEST_F(LivePacksTest, BatchesThatAreNotThereTakeNothingFromThePacks) {
  options.storage.batchRows = 40;
  begin(1);
  for (int from = 0; from < 36; from += 4) {
    appendAll(from, from + 4);
    live->flush();
  }
  appendAll(36, 40);
  appendAll(40, 41);  // writes the batch
  crash();
  const fs::path file = rec / "storage" / "1.parquet";
  ASSERT_TRUE(fs::exists(file));
  std::string bytes = test::Folder(rec / "storage").contents("1.parquet");
  const std::size_t batch = bytes.find("\x8FKYRBAT\n", 100);
  ASSERT_LT(batch, bytes.size());
  std::fill_n(bytes.begin() + std::ptrdiff_t(batch), 88, '\0');
  std::ofstream(file, std::ios::binary) << bytes;
  EXPECT_FALSE(recoverRecording(path()).hasLosses());
  RecordingReader reader(path());
  expectRows(reader, 1, 36);
}

// A content that ends where a part ended does not grow behind that, also if its file failed.
TEST_F(LivePacksTest, AppendingGoesOnBehindAFinishThatFailed) {
  begin(2);
  appendAll(0, 8);
  append(0, 8, 10);
  live->flush();
  fs::rename(rec / "storage", rec / "away");
  EXPECT_THROW(streams[1]->finish(), std::exception);
  fs::rename(rec / "away", rec / "storage");
  append(1, 8, 20);
  append(0, 10, 12);
  streams[1]->finish();
  append(1, 20, 25);
  live->finish();
  EXPECT_EQ(faults(rec), "");
  RecordingReader reader(path());
  expectRows(reader, 1, 12);
  expectRows(reader, 2, 25);
}

// What is reset stays until the journal says so, however often a flush fails before.
TEST_F(LivePacksTest, FailedFlushesKeepWhatIsAcknowledged) {
  options.storage.batchRows = 8;
  begin(2);
  appendAll(0, 20);
  live->flush();
  streams[1]->resetData();
  const fs::path obstacle = rec / "recording.live.json.new";
  fs::create_directory(obstacle);
  for (int i = 0; i < 3; ++i) EXPECT_THROW(live->flush(), std::exception);
  crash();
  fs::remove(obstacle);
  EXPECT_FALSE(recoverRecording(path()).hasLosses());
  RecordingReader reader(path());
  for (const int id : {1, 2}) expectRows(reader, id, 20);
}

// A flush that ends between its list and its line leaves what the flush before acknowledged, also
// of a signal that has forgotten these rows, and got others or none.
TEST_F(LivePacksTest, RowsThatWereForgottenAreThereUntilTheJournalSaysOtherwise) {
  for (const auto& [type, rows] : {std::pair(Double, 5), {Double, 40}, {Single, 40}, {Double, 0}}) {
    for (const std::string& left : {std::string(), std::string("3 4 "), std::string(8, '\0'),
                                    std::string(8, '\0') + std::string(80, '9') + "\n"}) {
      SCOPED_TRACE(fmt::format("{} rows of type {}", rows, int(type)));
      begin(2);
      appendAll(0, 20);
      live->flush();
      const std::string journal = test::Folder(rec).contents("recording.journal");
      streams[1]->resetData();
      streams[1]->setDataType(type);
      const std::string samples(std::size_t(rows) * (type == Single ? 4 : 8), 'x');
      if (rows > 0) {
        streams[1]->appendTime(Values(std::size_t(rows), -1).data(), std::size_t(rows));
        streams[1]->appendData(samples.data(), samples.size(), {}, {});
      }
      append(0, 20, 30);
      live->flush();
      crash();
      test::Folder(rec).touch("recording.journal", journal + left);
      {
        RecordingReader reader(path());
        for (const int id : {1, 2}) expectRows(reader, id, 20);
      }
      recoverRecording(path());
      EXPECT_EQ(faults(rec), "");
      RecordingReader reader(path());
      expectRows(reader, 2, 20);
      fs::remove_all(rec);
    }
  }
}

// Packs that were made to harm say that they have more rows of a content, in other columns.
TEST_F(LivePacksTest, RowsOfOtherColumnsAreRefused) {
  constexpr int kForged = 50'000;
  for (const bool hasFile : {false, true}) {
    live = std::make_unique<LiveRecording>(path(), options);
    const auto stream = live->addSignal({1, "bytes", "", "", {}}, Int8, Scalar);
    const std::string bytes(hasFile ? 600 : 5, 'x');
    stream->appendData(bytes.data(), bytes.size(), {}, {});
    live->flush();
    EXPECT_EQ(fs::exists(rec / "storage" / "0.parquet"), hasFile);
    crash();
    const auto schema =
        parquet::packSchema(*::arrow::schema({::arrow::field("data", ::arrow::float64())}));
    const auto forged = parquet::GrowingFile::create(rec / "storage" / "live-9.parquet", schema,
                                                     ::parquet::default_writer_properties());
    ::arrow::DoubleBuilder data;
    ASSERT_TRUE(data.AppendValues(Values(kForged, 1)).ok());
    ::arrow::Int32Builder ids;
    ASSERT_TRUE(ids.AppendValues(std::vector<int>(kForged, 0)).ok());
    forged->appendBatch(
        *::arrow::Table::Make(schema, {*data.Finish(), *ids.Finish()}), /*publish=*/true,
        ::arrow::key_value_metadata({parquet::kPackRunsKey},
                                    {fmt::format("{}+{} 0;", bytes.size(), kForged)}));
    std::ofstream(rec / "recording.journal", std::ios::app)
        << writeJournalLine({2, 2, {0, bytes.size() + kForged}});
    EXPECT_THAT(errorOf([&] { RecordingReader(path()).read(1); }), HasSubstr("have the columns"));
    if (hasFile) {
      EXPECT_EQ(recoverRecording(path()).signals.at(0).rowsKept, bytes.size());
    } else {
      EXPECT_THROW(recoverRecording(path()), std::runtime_error);
    }
    fs::remove_all(rec);
  }
}

}  // namespace
}  // namespace kyr::recording
