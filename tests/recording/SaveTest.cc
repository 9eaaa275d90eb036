#include <arrow/type.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <limits>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "files/growing/FileRecovery.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/parquet/StreamableWriter.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"
#include "platform/DiskFile.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingTest.h"
#include "recording/ReplaceFolder.h"
#include "recording/SignalTable.h"
#include "support/FaultyDisk.h"

namespace kyr::recording {
namespace {

using test::Folder;

class SaveRecording : public test::RecordingTest {
 protected:
  SaveRecording() { put(pool, 1, ramp({1, 2, 3})); }

  // A recording whose folder has files of others.
  void saveWithForeignEntries() {
    save(rec);
    const Folder folder(rec);
    folder.touch("notes.txt", "mine");
    fs::create_directories(rec / "plots/old");
    folder.touch("plots/old/a.svg", "<svg/>");
    fs::create_symlink("nowhere", rec / "link");
  }
  static void expectForeignEntries(const fs::path& folder) {
    EXPECT_EQ(Folder(folder).contents("notes.txt"), "mine");
    EXPECT_EQ(Folder(folder).contents("plots/old/a.svg"), "<svg/>");
    EXPECT_EQ(fs::read_symlink(folder / "link"), "nowhere");
  }
};

TEST_F(SaveRecording, ReplacesTheRecordingAndKeepsWhatElseIsInItsFolder) {
  saveWithForeignEntries();
  fs::permissions(rec, fs::perms::owner_all);
  put(pool, 2, ramp({4, 5}));
  save(rec);
  EXPECT_EQ(open(rec).info().signals.size(), 2U);
  EXPECT_EQ(faults(rec), "");
  expectForeignEntries(rec);
  EXPECT_EQ(fs::status(rec).permissions(), fs::perms::owner_all);
  EXPECT_EQ(temp.names(), (std::set<std::string>{"rec", "store"}));
}

TEST_F(SaveRecording, SignalWithoutASampleIsSound) {
  put(pool, 2, {{}, {1}, {{0}}, {}}, Int8, FixedDim);
  saveRecording(pool, {{2, "empty", "", "", {0}}}, Path::fromFilesystem(rec));
  EXPECT_EQ(faults(rec), "");
  const SignalInfo info = open(rec).info().signals[1];
  EXPECT_EQ(info.rowCount, 0U);
  EXPECT_FALSE(info.timeSpan);
}

TEST_F(SaveRecording, InfiniteTimesHaveNoSpanInAnyFile) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  put(pool, 2, {{0, kInfinite}, {1, 2}, {}, {}}, Int8);
  parquet::serialization_options::bSharedTimeColumn = false;
  put(pool, 3, {{-kInfinite, 0}, {1, 2}, {}, {}}, Int8);
  put(pool, 4, {{1, 2}, {1, 2}, {}, {}}, Int8);
  save(rec);
  EXPECT_EQ(faults(rec), "");
  const RecordingInfo info = describeRecording(Path::fromFilesystem(rec));
  EXPECT_FALSE(info.signals[1].timeSpan || info.signals[2].timeSpan);
  EXPECT_TRUE(info.signals[0].timeSpan && info.signals[3].timeSpan);
  EXPECT_TRUE(signalTable(info) == Folder(rec).contents("signals.parquet"));
}

TEST_F(SaveRecording, FolderMayBeNamedInManyWays) {
  fs::create_directories(temp.file("real/deep"));
  fs::create_directory_symlink(temp.file("real/deep"), temp.file("link"));
  fs::create_directory(temp.file("empty"));
  const fs::path before = fs::current_path();
  fs::current_path(temp.path().toFilesystem());
  for (const char* name : {"plain", "slash/", "two words", "Überdruck-压力.d", "./dot/./", "link",
                           "link/../beside", "empty"}) {
    SCOPED_TRACE(name);
    for (const fs::path& folder : {fs::path(name), temp.file(name)}) {
      save(folder);
      EXPECT_EQ(faults(folder), "");
      EXPECT_EQ(open(folder).info().signals.size(), 1U);
    }
  }
  fs::current_path(before);
  EXPECT_TRUE(fs::is_symlink(temp.file("link")));
  EXPECT_TRUE(fs::exists(temp.file("real/beside/recording.json")));
}

struct PoolKind {
  const char* name;
  bool isStreaming;
  bool isSafe;
};
const PoolKind kPoolKinds[]{
    {"whole files", false, false}, {"streamed", true, false}, {"safe", true, true}};

std::unique_ptr<parquet::SignalPool> makePool(const PoolKind& kind, const Path& directory) {
  if (!kind.isSafe) return std::make_unique<parquet::SignalPool>(directory);
  return std::make_unique<parquet::SignalPool>(directory, parquet::SafeStorage());
}

// Stores samples in the signal of a pool of any kind.
void storeIn(parquet::SignalPool& pool, const PoolKind& kind, int id,
             const std::vector<double>& all) {
  if (!kind.isStreaming) {
    const auto signal = pool.getSignal(id);
    signal->setDataType(Double);
    signal->setCategory(Scalar);
    signal->setData(all, test::bytesOf(all), {}, {});
    return;
  }
  const auto signal = pool.getStreamableSignal(id);
  signal->appendTime(all.data(), all.size());
  signal->appendData(all.data(), all.size() * sizeof(double), {}, {});
  signal->finish();
}

// Each byte is written once: the recording has the pool's files, as other names of them.
TEST_F(SaveRecording, SharesTheFilesOfThePoolAndNobodyWritesIntoThem) {
  for (const PoolKind& kind : kPoolKinds) {
    SCOPED_TRACE(kind.name);
    FeatureFlag::set("fKYRUseParquetRowGroup", kind.isStreaming);
    const fs::path directory = temp.file("pool");
    auto shared = makePool(kind, Path::fromFilesystem(directory));
    storeIn(*shared, kind, 1, {1, 2, 3});
    save(*shared, {}, rec);
    const auto saved = everythingIn(rec);
    for (const auto& file : fs::directory_iterator(rec / "storage")) {
      EXPECT_TRUE(fs::equivalent(file, directory / file.path().stem()));
    }

    // The pool goes on, and another one over the same files takes the ids for its own.
    storeIn(*shared, kind, 2, {4, 5});
    const auto other = makePool(kind, Path::fromFilesystem(directory));
    storeIn(*other, kind, 3, {6, 7, 8, 9});
    storeIn(*other, kind, 4, {10, 11, 12, 13, 14});
    parquet::StreamableWriter writer(temp.path());
    const auto schema = ::arrow::schema({::arrow::field("x", ::arrow::int8())});
    for (const auto& file : fs::directory_iterator(directory)) {
      writer.close(writer.create("pool/" + file.path().filename().string(), *schema, std::nullopt));
    }
    for (const char* name : {"0", "1"}) parquet::recoverFile(kyr::Folder(directory), name, 1);
    EXPECT_EQ(everythingIn(rec), saved);
    shared.reset();
    EXPECT_EQ(everythingIn(rec), saved);
    EXPECT_EQ(faults(rec), "");
    fs::remove_all(rec);
    fs::remove_all(directory);
  }
}

// Files that are recovered may be names of a saved recording's files, too.
TEST_F(SaveRecording, RecoveryOfTheLiveFolderLeavesASavedRecordingAlone) {
  const fs::path folder = temp.file("live");
  parquet::SafeStorage storage;
  storage.batchRows = 2;
  auto live = std::make_unique<LiveRecording>(Path::fromFilesystem(folder), LiveOptions{storage});
  const auto signal = live->addSignal({1, "", "", "", {}}, Double, Scalar);
  const auto append = [&](double value) { signal->appendData(&value, sizeof(value), {}, {}); };
  for (const double value : {1, 2}) append(value);
  live->flush();
  for (const double value : {3, 4, 5}) append(value);
  save(live->pool(), {}, rec);
  const auto saved = everythingIn(rec);
  const fs::path journal = folder / "recording.journal";
  const std::string flushed = readWholeFile(journal);
  live.reset();
  Folder(folder).touch("recording.journal", flushed);  // as a crash would leave it
  EXPECT_EQ(recoverRecording(Path::fromFilesystem(folder)).signals.at(0).rowsKept, 2U);
  EXPECT_EQ(everythingIn(rec), saved);
}

// The last of the calls syncs the parent folder, when the new recording has its name already.
TEST_F(SaveRecording, WhateverCallFailsLeavesEverythingAsItWas) {
  for (const char* was : {"nothing", "an empty folder", "a recording"}) {
    fs::remove_all(rec);
    if (*was == 'a') fs::create_directory(rec);
    if (was == std::string("a recording")) saveWithForeignEntries();
    const auto before = everythingIn(temp.path().toFilesystem());
    int failures = 0;
    for (std::string error = "none yet"; !error.empty(); ++failures) {
      test::faultyDisk::Plan plan;
      plan.failAt = failures + 1;
      plan.error = EIO;
      test::faultyDisk::start(plan);
      error = test::errorOf([&] { save(rec); });
      test::faultyDisk::stop();
      if (error.empty()) break;
      ASSERT_EQ(everythingIn(temp.path().toFilesystem()), before) << was << ": " << error;
    }
    EXPECT_GT(failures, 6) << was;
    EXPECT_EQ(faults(rec), "");
  }
}

TEST_F(SaveRecording, WithoutLeaveToReplaceARecordingStays) {
  SaveOptions options;
  options.replaces = false;
  const auto saveNew = [&] { saveRecording(pool, {}, Path::fromFilesystem(rec), options); };
  fs::create_directory(rec);
  saveNew();
  const auto saved = everythingIn(rec);
  put(pool, 2, ramp({4, 5}));
  EXPECT_THAT(test::errorOf(saveNew), ::testing::HasSubstr("is a recording already"));
  EXPECT_EQ(everythingIn(rec), saved);
  EXPECT_EQ(temp.names(), (std::set<std::string>{"rec", "store"}));

  // A recording that is made after the first look and before the last step.
  LockedFolder fresh(temp.file("fresh"));
  Folder(fresh.path()).touch("new");
  EXPECT_THAT(test::errorOf([&] {
                replaceFolder(fresh, rec, {false, true});
              }),
              ::testing::HasSubstr("exists, and is left as it is"));
  EXPECT_EQ(everythingIn(rec), saved);
  EXPECT_TRUE(fs::exists(fresh.path() / "new"));
}

// With these digests a reader can check a part of a file alone.
std::vector<std::uint64_t> blocksOf(const fs::path& file) {
  constexpr std::size_t kBlock = 262'144;
  const std::string bytes = readWholeFile(file);
  std::vector<std::uint64_t> blocks;
  for (std::size_t at = 0; bytes.size() > kBlock && at < bytes.size(); at += kBlock) {
    blocks.push_back(XXH3_64bits(&bytes[at], std::min(kBlock, bytes.size() - at)));
  }
  return blocks;
}

TEST_F(SaveRecording, LargeFilesAndPacksHaveDigestsOfTheirBlocks) {
  std::mt19937_64 random(1);
  std::vector<std::uint64_t> noise(100'000);
  for (std::uint64_t& value : noise) value = random();
  const auto expectBlocks = [&] {
    EXPECT_EQ(faults(rec), "");
    const RecordingInfo info = describeRecording(Path::fromFilesystem(rec));
    std::size_t found = 0;
    for (const FileInfo& file : info.files) {
      if (file.pack) continue;
      EXPECT_EQ(file.blocks, blocksOf(storagePath(rec, file.storageId)));
      found += file.blocks.size();
    }
    for (const PackInfo& pack : info.packs) {
      EXPECT_EQ(pack.blocks, blocksOf(packPath(rec, pack.number)));
      found += pack.blocks.size();
    }
    EXPECT_EQ(found, 4U);
  };
  put(pool, 2, {{}, test::bytesOf(noise), {}, {}}, UInt64);
  save(rec);
  expectBlocks();
  SaveOptions packing;
  packing.packBelow = std::size_t{1} << 20U;
  saveRecording(pool, {}, Path::fromFilesystem(rec), packing);
  expectBlocks();
  fs::remove_all(rec);
  for (const bool isFinished : {true, false}) {
    auto live = std::make_unique<LiveRecording>(Path::fromFilesystem(rec));
    live->addSignal({1, "a", "", "", {}}, UInt64, Scalar)
        ->appendData(noise.data(), noise.size() * sizeof(noise[0]), {}, {});
    live->flush();
    if (isFinished) live->finish();
    live.reset();
    recoverRecording(Path::fromFilesystem(rec));
    expectBlocks();
    fs::remove_all(rec);
  }
}

struct Refusal {
  const char* says;
  void (*prepare)(const fs::path& rec, parquet::SignalPool& pool);
  std::vector<SignalDescription> descriptions = {};
};

const Refusal kRefusals[]{
    {"rec: is not a folder",
     [](const fs::path& rec, parquet::SignalPool&) {
       fs::remove_all(rec);
       Folder(rec.parent_path()).touch("rec", "text");
     }},
    {"rec: is neither empty nor a recording",
     [](const fs::path& rec, parquet::SignalPool&) { fs::remove(rec / "recording.json"); }},
    {"signal 2: its samples were not written",
     [](const fs::path&, parquet::SignalPool& pool) {
       const auto signal = pool.getSignal(2);
       signal->setCategory(Scalar);
       signal->setParquetCompressionType(::arrow::Compression::LZ4_FRAME);
       signal->setData({0}, std::vector<char>(8), {}, {});
     }},
    {"signal 1: its file",
     [](const fs::path&, parquet::SignalPool& pool) {
       fs::remove(pool.getParquetDirectory().join("1").toFilesystem());
     }},
    {"signal 1 is stored in",
     [](const fs::path& rec, parquet::SignalPool& pool) {
       pool.setParquetDirectory(Path::fromFilesystem(rec.parent_path() / "elsewhere"));
     }},
    {"signal 1 is described twice",
     [](const fs::path&, parquet::SignalPool&) {},
     {{1, "a", "", "", {}}, {1, "b", "", "", {}}}},
    {"signal 1: ",
     [](const fs::path&, parquet::SignalPool&) {},
     {{1, "no UTF-8: \xff", "", "", {}}}},
};

TEST_F(SaveRecording, RefusedSaysWhyAndLeavesEverythingAsItWas) {
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(refusal.says);
    parquet::SignalPool refused(temp.path().join("pool"));
    put(refused, 1, ramp({1, 2, 3}));
    saveWithForeignEntries();
    refusal.prepare(rec, refused);
    const auto before = everythingIn(temp.path().toFilesystem());
    try {
      save(refused, refusal.descriptions, rec);
      ADD_FAILURE() << "was saved";
    } catch (const std::exception& error) {
      EXPECT_THAT(error.what(), ::testing::HasSubstr(refusal.says));
    }
    EXPECT_EQ(everythingIn(temp.path().toFilesystem()), before);
    fs::remove_all(rec);
  }
  EXPECT_THROW(save(temp.file("no/folder")), std::runtime_error);
}

// A process saves take after take until it kills itself; what it leaves is the last take that it
// told to be saved, or the one it was saving.
TEST_F(SaveRecording, KilledLeavesTheOldRecordingOrTheNewOne) {
  saveWithForeignEntries();
  std::minstd_rand random(20);
  int saved = 0;
  for (int round = 0; round < 20; ++round) {
    const std::string command =
        fmt::format("{} {} {} {}", KYR_SAMPLE_WRITER, rec.string(), saved + 1, random() % 40000);
    FILE* told = popen(("exec " + command).c_str(), "r");
    ASSERT_TRUE(told);
    while (fscanf(told, "%d", &saved) == 1) continue;
    ASSERT_EQ(WTERMSIG(pclose(told)), SIGKILL);

    ASSERT_EQ(faults(rec), "");
    Recording opened = open(rec);
    expectForeignEntries(rec);
    const int found = std::stoi(opened.info().signals.at(0).name);
    EXPECT_THAT(found, ::testing::AnyOf(saved, saved + 1));
    EXPECT_EQ(test::read(*opened.pool().getSignal(1)).data,
              test::bytesOf(std::vector<int>(100, found)));
    saved = found;
  }
}

// An editor replaces its file in the older folder or in the newer one.
TEST_F(SaveRecording, WhatOthersSaveMeanwhileIsKept) {
  using Clock = std::chrono::steady_clock;
  saveWithForeignEntries();
  const auto start = Clock::now();
  save(rec);
  const std::chrono::nanoseconds longest = Clock::now() - start;
  const Folder beside(temp.path().toFilesystem());
  for (int round = 0; round < 100; ++round) {
    const std::string text = std::to_string(round);
    std::thread editor([&] {
      std::this_thread::sleep_for(longest * (round % 20) / 20);
      for (const auto& name : {std::string("notes.txt"), "plots/" + text}) {
        beside.touch("edited", text);
        // Its folder may be renamed meanwhile.
        for (std::error_code error(1, std::generic_category()); error;) {
          fs::rename(temp.file("edited"), rec / name, error);
        }
      }
    });
    save(rec);
    editor.join();
    ASSERT_EQ(Folder(rec).contents("notes.txt"), text);
    ASSERT_EQ(Folder(rec).contents("plots/" + text), text);
  }
  EXPECT_EQ(Folder(rec).contents("plots/old/a.svg"), "<svg/>");
  EXPECT_EQ(temp.names(), (std::set<std::string>{"rec", "store"}));
}

TEST_F(SaveRecording, ReaderGoesOnWithWhatASaveKept) {
  const auto second = put(pool, 2, ramp({4, 5, 6}));
  save(rec);
  const RecordingReader reader(Path::fromFilesystem(rec));
  second->resetData();
  put(pool, 2, ramp({7, 8, 9}));
  save(rec);
  EXPECT_EQ(reader.read(1).bytes, test::bytesOf(std::vector<short>{1, 2, 3}));
  try {
    reader.read(2);
    ADD_FAILURE() << "rows of another recording";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ESTALE);
    EXPECT_THAT(error.what(), ::testing::HasSubstr("rec: was replaced by another recording"));
  }
}

// Whoever reads meanwhile finds the old recording or the new one, and no damage.
TEST_F(SaveRecording, FolderIsCompleteAtEveryMoment) {
  saveWithForeignEntries();
  std::atomic<bool> over{false};
  std::thread saver([&] {
    for (int i = 0; i < 100; ++i) save(rec);
    over = true;
  });
  int missed = 0;
  std::string damage;
  while (!over) {
    if (damage.empty()) damage = faults(rec);
    const RecordingReader reader(Path::fromFilesystem(rec));
    EXPECT_EQ(reader.read(1).bytes, test::bytesOf(std::vector<short>{1, 2, 3}));
    for (const char* name : {"recording.json", "storage/1.parquet", "notes.txt"}) {
      missed += access((rec / name).c_str(), F_OK) == 0 ? 0 : 1;
    }
  }
  saver.join();
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(damage, "");
}

}  // namespace
}  // namespace kyr::recording
