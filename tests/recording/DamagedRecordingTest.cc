#include <functional>
#include <stdexcept>

#include "recording/Checksum.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {
namespace {

using ::testing::HasSubstr;
using Damage = std::function<void(const fs::path& rec)>;

std::string openError(const fs::path& rec) {
  try {
    openRecording(Path::fromFilesystem(rec));
    return "opens";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// What opening a recording and reading all its signals throws.
std::string readError(const fs::path& rec) {
  try {
    Recording opened = openRecording(Path::fromFilesystem(rec));
    for (const SignalInfo& signal : opened.info().signals) {
      test::read(*opened.pool().getSignal(signal.signalId));
    }
    return "is read";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

Damage removed(const char* name) {
  return [name](const fs::path& rec) { fs::remove_all(rec / name); };
}

Damage replaced(const char* name, const std::string& content) {
  return [=](const fs::path& rec) { test::Folder(rec).touch(name, content); };
}

Damage cut(const char* name, std::size_t size) {
  return [=](const fs::path& rec) { fs::resize_file(rec / name, size); };
}

// Another content of recording.json, its checksum included.
Damage says(void (*edit)(RecordingInfo& info)) {
  return [edit](const fs::path& rec) {
    RecordingInfo info = readRecordingJson(readWholeFile(rec / "recording.json"), "");
    edit(info);
    test::Folder(rec).touch("recording.json", writeRecordingJson(info));
  };
}

// The same of the recording as version 1 has it, with records.
Damage saysInVersion1(void (*edit)(RecordingInfo& info)) {
  return [edit](const fs::path& rec) {
    RecordingInfo info = readRecordingJson(readWholeFile(rec / "recording.json"), "");
    for (const FileInfo& file : info.files) {
      fs::rename(storagePath(rec, file.storageId),
                 rec / kStorageFolder / storageName(file.storageId, 1));
    }
    info.formatVersion = 1;
    info.records = R"([{"dataStorageId":[1],"signalId":1,"timeStorageId":[0]},
                       {"dataStorageId":[2],"signalId":2,"timeStorageId":[0]},
                       {"dataStorageId":[3],"signalId":3,"timeStorageId":[-554114]},
                       {"dataStorageId":[4],"signalId":4,"timeStorageId":[-554114]}])";
    edit(info);
    test::Folder(rec).touch("recording.json", writeRecordingJson(info));
  };
}

using Info = RecordingInfo;

struct Fault {
  const char* name;
  Damage damage;
  const char* says;
  bool opens = false;
  const char* reading = "is read";  // what is said when the signals of one that opens are read
};

const Fault kFaults[]{
    {"no folder", removed(""), "rec: no such folder"},
    {"file in place of the folder",
     [](const fs::path& rec) {
       fs::remove_all(rec);
       writeNewFile(rec, "text");
     },
     "rec: not a recording"},
    {"no recording.json", removed("recording.json"), "it has no recording.json"},
    {"cut recording.json", cut("recording.json", 300), "no valid JSON at byte 301"},
    {"empty recording.json", cut("recording.json", 0), "no valid JSON at byte 1"},
    {"garbage", replaced("recording.json", "\xff\x01{"), "no valid JSON"},
    {"other JSON", replaced("recording.json", R"({"format": "x"})"), "not the description of a"},
    {"newer format", says([](Info& info) { info.formatVersion = 4; }), "version 4 is newer than 3"},
    {"missing file", removed("storage/1.parquet"), "storage/1.parquet: missing"},
    {"no storage", removed("storage"), "storage/0.parquet: missing"},
    {"folder in place of a file",
     [](const fs::path& rec) {
       fs::remove(rec / "storage/1.parquet");
       fs::create_directory(rec / "storage/1.parquet");
     },
     "storage/1.parquet"},
    {"cut file", cut("storage/1.parquet", 100), "100 bytes long, expected"},
    {"longer file", cut("storage/1.parquet", 10000), "10000 bytes long, expected"},
    {"unlisted file", says([](Info& info) { info.files.erase(info.files.begin()); }),
     "signal 1 names the file storage/0.parquet, which is not listed"},

    // No checksum shows these contradictions. Only verifyRecording() finds them.
    {"file that is no Parquet file",
     [](const fs::path& rec) {
       replaced("storage/1.parquet", "text")(rec);
       says([](Info& info) {
         info.files[1].size = 4;
         info.files[1].checksum = checksumOf("text");
       })(rec);
     },
     "storage/1.parquet: ", true, "storage/1.parquet: "},
    {"file that no signal names", says([](Info& info) { info.signals.pop_back(); }),
     "storage/4.parquet: no record names it", true},
    {"foreign file", replaced("storage/x", ""), "storage/x: no record names it", true},
    {"signals without records", saysInVersion1([](Info& info) { info.records = "[]"; }),
     "signal 1 \"signal 1\" and its record name different files", true},
    {"record of no signal",
     saysInVersion1([](Info& info) { info.signals.erase(info.signals.begin()); }),
     "a record of signal 1, which is not described", true},
    {"unreadable records", saysInVersion1([](Info& info) { info.records = "["; }),
     "records cannot be", true},
    {"other digest of rows",
     says([](Info& info) { info.files[1].contentDigest = info.files[2].contentDigest; }),
     "storage/1.parquet: its rows have the digest ", true},
    {"other bounds", says([](Info& info) { info.files[1].maximum = 7; }),
     "storage/1.parquet: its values are 1 to 3, expected 1 to 7", true},
    {"other span", says([](Info& info) {
       info.signals[0].timeSpan = TimeSpan{0, 9};
     }),
     "signal 1 \"signal 1\": its times are 0 to 2, expected 0 to 9", true},
    {"other span of a column", says([](Info& info) {
       info.signals[3].timeSpan = TimeSpan{0, 9};
     }),
     "signal 4 \"signal 4\": its times are 0 to 1, expected 0 to 9", true},
    {"no table of signals", removed("signals.parquet"), "signals.parquet: missing", true},
    {"older table of signals", replaced("signals.parquet", "PAR1"),
     "signals.parquet: damaged, or older or newer than recording.json", true},
    {"other rows", says([](Info& info) { info.files[1].rowCount = 4; }),
     "storage/1.parquet: holds 3 rows, expected 4", true, "holds 3 rows, expected 4"},
    {"other samples", says([](Info& info) { info.signals[0].rowCount = 4; }),
     "3 samples in the file of storage id 1, expected 4", true,
     "3 samples in the file of storage id 1, expected 4"},
    {"time of another length", says([](Info& info) { info.signals[2].timeStorageId = 0; }),
     "3 times in storage/0.parquet, but 2 samples in storage/3.parquet", true},
    {"other data type", says([](Info& info) { info.signals[0].dataType = Int8; }),
     "storage/1.parquet has the columns [data: int16], expected [data: int8]", true,
     "has the columns [data: int16], expected [data: int8]"},
    {"other category", says([](Info& info) { info.signals[1].category = VarDim; }),
     "expected [data: list<item: int8>, dimension: list<item: uint64>]", true,
     "expected [data: list<item: int8>, dimension: list<item: uint64>]"},
    {"other shape", says([](Info& info) { info.signals[1].dimensions = {5}; }),
     "sample 0 has 4 elements, its shape 5", true},
};

class DamagedRecording : public test::RecordingTest {};

// Signal 1 has the files 0 (time) and 1, signal 2 the files 0 and 2, signal 3 only the file 3, and
// signal 4 has its times in its file 4.
TEST_F(DamagedRecording, IsNamedByVerifyAndRefusedByOpen) {
  put(pool, 1, ramp({1, 2, 3}));
  put(pool, 2, {{0, 1, 2}, std::vector<char>(12), {{2, 2}}, {}}, Int8, FixedDim);
  put(pool, 3, {{}, {1, 2, 3}, {{1}, {2}}, {}}, Int8, VarDim);
  parquet::serialization_options::bSharedTimeColumn = false;
  put(pool, 4, ramp({5, 6}));
  parquet::serialization_options::bSharedTimeColumn = true;
  for (const Fault& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    saveRecording(pool, {{2, "", "", "", {2, 2}}}, Path::fromFilesystem(rec));
    ASSERT_EQ(faults(rec), "");
    unshare(rec);
    fault.damage(rec);
    EXPECT_THAT(faults(rec), HasSubstr(fault.says));
    EXPECT_THAT(openError(rec), HasSubstr(fault.opens ? "opens" : fault.says));
    if (fault.opens) {
      EXPECT_THAT(readError(rec), HasSubstr(fault.reading));
    }
    fs::remove_all(rec);
    EXPECT_THAT(temp.names(), ::testing::ElementsAre("store")) << "a working directory is left";
  }
}

TEST_F(DamagedRecording, EveryFlippedBitIsFound) {
  put(pool, 1, ramp({1, 2, 3}));
  save(rec);
  for (const char* name : {"recording.json", "storage/0.parquet", "storage/1.parquet"}) {
    const std::string sound = readWholeFile(rec / name);
    for (std::size_t i = 0; i < sound.size(); ++i) {
      std::string flipped = sound;
      flipped[i] = static_cast<char>(flipped[i] ^ (1 << i % 8));
      replaced(name, flipped)(rec);
      ASSERT_NE(faults(rec), "") << name << ", byte " << i;
      ASSERT_NE(readError(rec), "is read") << name << ", byte " << i;
    }
    replaced(name, sound)(rec);
  }
  EXPECT_EQ(faults(rec), "");
}

}  // namespace
}  // namespace kyr::recording
