#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "kyr/recording/Deduplication.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"

namespace kyr::test {
namespace {

using recording::FileInfo;
using recording::RecordingInfo;

struct Layout {
  const char* name;
  std::size_t packBelow;
};

class DeduplicationTest : public RecordingTest, public ::testing::WithParamInterface<Layout> {
 protected:
  // A recording of four signals, which have times in common, and whose samples differ by those of
  // signal 1.
  fs::path make(const std::string& name, short offset) {
    parquet::SignalPool source{Path::fromFilesystem(temp.file(name + ".pool"))};
    for (int id = 0; id < 4; ++id) {
      std::vector<short> values(3000);
      std::iota(values.begin(), values.end(), short(100 * id + (id == 1 ? offset : 0)));
      put(source, id, ramp(values));
    }
    recording::SaveOptions options;
    options.packBelow = GetParam().packBelow;
    fs::path folder = temp.file(name);
    recording::saveRecording(source, {}, Path::fromFilesystem(folder), options);
    fs::remove_all(temp.file(name + ".pool"));
    return folder;
  }

  // Lets a recording say that the samples of a signal have the digest of others.
  static void lie(const fs::path& folder, int signal, const std::string& digest) {
    RecordingInfo info = recording::describeRecording(Path::fromFilesystem(folder));
    fileOf(info, signal).contentDigest = digest;
    Folder(folder).touch("recording.json", recording::writeRecordingJson(info));
  }

  static FileInfo& fileOf(RecordingInfo& info, int signal) {
    const int id = *info.signals.at(static_cast<std::size_t>(signal)).dataStorageId;
    return *std::find_if(info.files.begin(), info.files.end(),
                         [id](const FileInfo& file) { return file.storageId == id; });
  }

  static std::string digestOf(const fs::path& folder, int signal) {
    RecordingInfo info = recording::describeRecording(Path::fromFilesystem(folder));
    return fileOf(info, signal).contentDigest;
  }
};

INSTANTIATE_TEST_SUITE_P(Layouts, DeduplicationTest,
                         ::testing::Values(Layout{"files", 0}, Layout{"packs", 1 << 20}),
                         [](const auto& layout) { return std::string(layout.param.name); });

// A digest may lie, by accident or on purpose. Rows are what counts.
TEST_P(DeduplicationTest, RefusesEqualDigestsOfDifferentRows) {
  const fs::path first = make("first", 0);
  const fs::path second = make("second", 7);
  const std::string own = digestOf(second, 2);
  for (const std::string& digest : {digestOf(first, 1), own, digestOf(second, 1)}) {
    SCOPED_TRACE(digest);
    for (const int signal : {1, 2}) {
      const std::string truth = digestOf(second, signal);
      if (digest == truth) continue;
      lie(second, signal, digest);
      const auto before = everythingIn(second);
      recording::Deduplicator deduplicator;
      deduplicator.add(Path::fromFilesystem(first));
      EXPECT_THAT(errorOf([&] { deduplicator.deduplicate(Path::fromFilesystem(second)); }),
                  ::testing::HasSubstr("has the digest of other rows"));
      EXPECT_EQ(everythingIn(second), before);
      lie(second, signal, truth);
    }
  }
  recording::Deduplicator deduplicator;
  deduplicator.add(Path::fromFilesystem(first));
  const auto report = deduplicator.deduplicate(Path::fromFilesystem(second));
  EXPECT_EQ(report.leftAlone, "");
  EXPECT_EQ(report.sharedContents, 4U);
  EXPECT_EQ(faults(second), "");
}

// A link in the place of a file stands for one that has all the names that its file system allows.
TEST_P(DeduplicationTest, FilesThatGetNoOtherNameAreSharedFromTheNextRecordingOn) {
  const fs::path first = make("first", 0);
  const fs::path second = make("second", 0);
  const fs::path third = make("third", 0);
  std::size_t linked = 0;
  for (const char* name : {"0.parquet", "2.parquet", "pack-0.parquet"}) {
    const fs::path file = first / "storage" / name;
    if (!fs::exists(file)) continue;
    ++linked;
    fs::rename(file, temp.file(name));
    fs::create_symlink(temp.file(name), file);
  }
  recording::Deduplicator deduplicator;
  deduplicator.add(Path::fromFilesystem(first));
  const auto report = deduplicator.deduplicate(Path::fromFilesystem(second));
  EXPECT_EQ(report.sharedContents, 5 - linked);
  EXPECT_EQ(report.leftAlone, "");
  const auto last = deduplicator.deduplicate(Path::fromFilesystem(third));
  EXPECT_EQ(last.sharedContents, 5U) << last.leftAlone;
  EXPECT_EQ(faults(second) + faults(third), "");
}

TEST_P(DeduplicationTest, ContentsAreLookedForWhereTheyAreNow) {
  const fs::path first = make("first", 0);
  const fs::path second = make("second", 7);
  const fs::path third = make("third", 7);
  recording::Deduplicator deduplicator;
  deduplicator.add(Path::fromFilesystem(first));
  deduplicator.add(Path::fromFilesystem(second));
  EXPECT_EQ(deduplicator.deduplicate(Path::fromFilesystem(second)).sharedContents, 4U);
  EXPECT_EQ(deduplicator.deduplicate(Path::fromFilesystem(third)).sharedContents, 5U);
  EXPECT_EQ(faults(second) + faults(third), "");
}

}  // namespace
}  // namespace kyr::test
