#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/recording/WorkingFolder.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {
namespace {

using test::Folder;
using ::testing::HasSubstr;

class WorkingFolders : public test::RecordingTest {
 protected:
  std::string leftover(const std::vector<Leftover>& found) const {
    if (found.empty()) return "nothing";
    EXPECT_EQ(found.size(), 1U);
    return found[0].inTheWay.empty() ? "free" : found[0].inTheWay;
  }
  std::string beside() const { return leftover(findLeftovers(Path::fromFilesystem(rec))); }

  // Everything in the folder seems to be of yesterday.
  static void age(const fs::path& folder) {
    const auto before = fs::file_time_type::clock::now() - std::chrono::hours(24);
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      if (!entry.is_symlink()) fs::last_write_time(entry, before);
    }
    fs::last_write_time(folder, before);
  }
};

TEST_F(WorkingFolders, LastAsLongAsTheirProcess) {
  {
    const auto folder = WorkingFolder::beside(Path::fromFilesystem(rec));
    const fs::path path = folder.path().toFilesystem();
    EXPECT_EQ(path.parent_path(), rec.parent_path());
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all);
    Folder(path / "shared").touch("0", "PAR1");
    EXPECT_EQ(beside(), "a process uses it");
    EXPECT_FALSE(removeLeftover(findLeftovers(Path::fromFilesystem(rec)).at(0)));
    const auto temporary = WorkingFolder::temporary();
    EXPECT_EQ(leftover(findTemporaryLeftovers()), "a process uses it");
  }
  EXPECT_EQ(temp.names(), test::Names{"store"});

  // A process that ends without a chance to clean up.
  const pid_t child = fork();
  if (child == 0) {
    const auto folder = WorkingFolder::beside(Path::fromFilesystem(rec));
    const auto temporary = WorkingFolder::temporary();
    Folder(folder.path().toFilesystem() / "shared").touch("0", "PAR1 and so on");
    Folder(temporary.path().toFilesystem()).touch("pipe.csv", "time,a");
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  for (const auto& found : {findLeftovers(Path::fromFilesystem(rec)), findTemporaryLeftovers()}) {
    ASSERT_EQ(leftover(found), "free");
    EXPECT_GT(found[0].bytes, 0U);
    EXPECT_TRUE(removeLeftover(found[0]));
  }
  EXPECT_EQ(temp.names(), test::Names{"store"});
}

struct Content {
  const char* name;
  std::function<void(const fs::path& folder)> make;
  const char* says;
};

const Content kContents[]{
    {"nothing", [](const fs::path&) {}, "free"},
    {"a save that was cut",
     [](const fs::path& folder) {
       Folder(folder / "storage").touch("0", "PAR1...");
       Folder(folder / "storage").touch("1", "PA");
       Folder(folder / "storage").touch("pack-0.parquet", "");
       Folder(folder / "storage").touch("7.parquet", "PAR1...");
       Folder(folder).touch("recording.json", "{");
       Folder(folder).touch("recording.json.new", "{");
       Folder(folder).touch("signals.parquet", "PAR1");
       Folder(folder).touch("signals.parquet.new", "");
     },
     "free"},
    {"links to what the recording's folder has",
     [](const fs::path& folder) {
       const fs::path rec = folder.parent_path() / "rec";
       fs::create_hard_link(rec / "notes.txt", folder / "notes.txt");
       fs::create_directory(folder / "plots");
       fs::create_hard_link(rec / "plots/7", folder / "plots/7");
       fs::create_symlink("nowhere", folder / "link");
     },
     "free"},
    {"a file of somebody",
     [](const fs::path& folder) { Folder(folder).touch("notes.txt", "other notes"); },
     "kyr did not make notes.txt"},
    {"a file in a folder of somebody",
     [](const fs::path& folder) { Folder(folder / "plots").touch("8", "PAR1"); },
     "kyr did not make plots/8"},
    {"a file that only has such a name",
     [](const fs::path& folder) { Folder(folder / "storage").touch("12", "thesis"); },
     "kyr did not make storage/12"},
    {"a link to a folder",
     [](const fs::path& folder) { fs::create_directory_symlink("/", folder / "storage"); },
     "kyr did not make storage"},
    {"a FIFO", [](const fs::path& folder) { mkfifo((folder / "0").c_str(), 0600); },
     "kyr did not make 0"},
};

TEST_F(WorkingFolders, OnlyWhatKyrMadeIsALeftover) {
  save(rec);
  Folder(rec).touch("notes.txt", "mine");
  Folder(rec / "plots").touch("7", "<svg/>");
  fs::create_symlink("nowhere", rec / "link");
  for (const Content& content : kContents) {
    SCOPED_TRACE(content.name);
    const fs::path folder = temp.file("rec.saving-0123456789abcdef");
    fs::create_directory(folder);
    content.make(folder);
    EXPECT_THAT(beside(), content.says);
    const bool isFree = beside() == "free";
    EXPECT_EQ(removeLeftover(findLeftovers(Path::fromFilesystem(rec)).at(0)), isFree);
    EXPECT_EQ(fs::exists(folder), !isFree);
    fs::remove_all(folder);
  }
  for (const char* name : {"rec.saving-", "rec.saving-xyz", "rec.saving-01.new", "rec2.saving-01",
                           ".saving-01", "rec.importing"}) {
    fs::create_directory(temp.file(name));
    EXPECT_EQ(beside(), "nothing") << name;
    fs::remove(temp.file(name));
  }
  fs::create_directory(temp.file("real"));
  fs::create_directory_symlink("real", temp.file("rec.saving-01"));
  EXPECT_EQ(beside(), "nothing");
  EXPECT_FALSE(removeLeftover({temp.path().join("rec.saving-01"), 0, ""}));
  EXPECT_FALSE(removeLeftover({temp.path().join("real"), 0, ""}));
}

// Without an exchange of folders, a save that is killed may leave the only copy there.
TEST_F(WorkingFolders, TheOldRecordingStaysUntilThereIsANewOne) {
  const fs::path old = temp.file("rec.saving-01.old");
  save(old);
  EXPECT_THAT(beside(), HasSubstr("is the recording"));
  save(rec);
  EXPECT_EQ(beside(), "free");
}

TEST_F(WorkingFolders, TemporaryDirectoriesOfSafePoolsGoWithTheirLastSignal) {
  auto safe = std::make_unique<parquet::SignalPool>(parquet::SafeStorage());
  auto signal = put(*safe, 1, ramp({1, 2}));
  const fs::path directory = safe->getParquetDirectory().toFilesystem();
  safe->reset();
  EXPECT_TRUE(fs::exists(directory));
  signal.reset();
  EXPECT_FALSE(fs::exists(directory));
  put(*safe, 1, ramp({1, 2}));
  safe.reset();
  EXPECT_EQ(temp.names(), test::Names{"store"});

  { const parquet::SignalPool named(temp.path().join("named"), parquet::SafeStorage()); }
  EXPECT_EQ(temp.names(), (test::Names{"named", "store"}));
  const fs::path left = parquet::SignalPool().getParquetDirectory().toFilesystem();
  EXPECT_TRUE(fs::is_empty(left));
}

TEST_F(WorkingFolders, FoldersWithoutALockCountAsUsedForAWhile) {
  const fs::path poolFolder = parquet::generateTempDirectoryName(u"parquetStorage").toFilesystem();
  for (const fs::path& folder : {poolFolder, temp.file("kyr-0123456789abcdef")}) {
    fs::create_directory(folder);
    EXPECT_EQ(leftover(findTemporaryLeftovers()), "a process may use it");
    age(folder);
    EXPECT_EQ(leftover(findTemporaryLeftovers()), "free");
    Folder(folder).touch("0", "PAR1");
    age(folder);
    EXPECT_EQ(leftover(findTemporaryLeftovers()), folder == poolFolder ? "nothing" : "free");
    fs::remove_all(folder);
  }
}

}  // namespace
}  // namespace kyr::recording
