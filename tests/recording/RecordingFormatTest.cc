#include <gmock/gmock.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "recording/Checksum.h"
#include "recording/LiveFormat.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"
#include "safe/PartNotes.h"
#include "signals/SignalRecords.h"

namespace kyr::recording {
namespace {

using nlohmann::json;
using test::errorOf;
using ::testing::AllOf;
using ::testing::HasSubstr;

// Two signals over a time file and a data file, the last in a pack; every member has a value.
RecordingInfo sample(int version) {
  RecordingInfo info;
  info.formatVersion = version;
  info.attributes = {{"\"\n\xC3\xA9", "\"\xC3\xA9\""}, {"n", "1.5"}, {"none", "null"}};
  SignalInfo signal;
  signal.signalId = -7;
  signal.name = "quote \" and \xC3\xA9";
  signal.unit = "°C";
  signal.description = "line\nfeed";
  signal.dataType = UInt16;
  signal.category = FixedDim;
  signal.dimensions = {2, 3};
  signal.compression = "zstd";
  signal.rowCount = 5;
  signal.timeSpan = TimeSpan{-0.5, 1e300};
  signal.timeStorageId = 0;
  signal.dataStorageId = 4;
  info.signals.push_back(signal);
  signal.signalId = 2147483647;
  signal.timeSpan = TimeSpan{0, std::numeric_limits<double>::infinity()};
  info.signals.push_back(signal);
  FileInfo file;
  file.storageId = 0;
  file.size = 600'000;
  file.rowCount = 5;
  file.checksum = checksumOf("file");
  file.blocks = {1, 0xFEDCBA9876543210U, 0};
  file.contentDigest = checksumOf("content");
  file.minimum = -std::numeric_limits<double>::infinity();
  file.maximum = 0.1;
  info.files.push_back(file);
  file.storageId = 4;
  file.blocks.clear();
  file.contentDigest.clear();
  file.minimum.reset();
  file.maximum.reset();
  file.size = 10;
  if (version == 1) info.records = "[]";
  if (version > 2) info.signalsChecksum = checksumOf("table");
  if (version > 1) {
    file.pack = 3;
    file.firstRow = 2;
    info.packs.push_back({3, 262'145, 10, checksumOf("pack"), {5, 6}});
  }
  info.files.push_back(file);
  return info;
}

std::string sealed(json document) {
  document.erase("xxh3_128");
  document["xxh3_128"] = checksumOf(document.dump());
  return document.dump();
}

TEST(RecordingFormat, EveryMemberComesBackHoweverTheTextIsLaidOut) {
  for (const int version : {1, 2, 3}) {
    const RecordingInfo info = sample(version);
    const std::string text = writeRecordingJson(info);
    const json document = json::parse(text);
    EXPECT_EQ(text, version == 1 ? document.dump(1) + "\n" : document.dump() + "\n");
    EXPECT_EQ(document["files"][0]["blocks_xxh3_64"],
              "0000000000000001fedcba98765432100000000000000000");
    EXPECT_EQ(document["signals"][1]["timeSpan"], nullptr);

    // In another order, with members that nobody knows, and indented in another way.
    nlohmann::ordered_json other = {{"later", {{{"deep", {1, 2}}}}}};
    for (auto member = document.rbegin(); member != document.rend(); ++member) {
      if (member.key() != "xxh3_128") other[member.key()] = member.value();
    }
    std::swap(other["signals"][0], other["signals"][1]);
    other["files"][0]["unknown"] = "x";
    other["xxh3_128"] = checksumOf(json::parse(other.dump()).dump());
    for (const std::string& variant : {text, document.dump(3), other.dump(), other.dump(1)}) {
      const RecordingInfo read = readRecordingJson(variant, "rec");
      EXPECT_EQ(writeRecordingJson(read), text);
      EXPECT_EQ(read.signals[0].name, info.signals[0].name);
      EXPECT_EQ(read.files[0].blocks, info.files[0].blocks);
      EXPECT_EQ(read.files[1].pack, info.files[1].pack);
    }
  }
}

TEST(RecordingFormat, WhatGoesWithoutSayingIsLeftOutSinceVersion3) {
  for (const int version : {1, 2, 3}) {
    RecordingInfo info = sample(version);
    SignalInfo& signal = info.signals[0];
    signal.unit = signal.description = "";
    signal.dimensions.clear();
    signal.compression = "uncompressed";
    info.signals[1].compression = "";  // without a file
    const json document = json::parse(writeRecordingJson(info));
    const json& written = document["signals"];
    const std::map<std::string, json> plain{{"unit", ""},
                                            {"description", ""},
                                            {"dimensions", json::array()},
                                            {"compression", "uncompressed"}};
    for (const auto& [name, value] : plain) {
      EXPECT_EQ(written[0].value(name, json()), version < 3 ? value : json()) << name;
      EXPECT_TRUE(written[1].contains(name)) << name;
    }
    json complete = document;
    for (const auto& [name, value] : plain) complete["signals"][0][name] = value;
    for (const json& variant : {document, complete}) {
      const RecordingInfo read = readRecordingJson(sealed(variant), "rec");
      EXPECT_EQ(writeRecordingJson(read), writeRecordingJson(info));
      EXPECT_EQ(read.signals[0].compression, "uncompressed");
      EXPECT_EQ(read.signals[1].compression, "");
    }
  }
}

struct Fault {
  const char* edit;  // new values by path; "-" removes one
  const char* says;
};

// Applied to the packed sample; the checksum is made anew.
const Fault kFaults[]{
    {R"({"signals/0/id": 3000000000})",
     "signals[0].id is 3000000000, expected an integer from -2147483648 to 2147483647"},
    {R"({"signals/1/id": "7"})", R"(signals[1].id is "7", expected an integer)"},
    {R"({"signals/0/timeStorageId": 4294967296})", "signals[0].timeStorageId is 4294967296"},
    {R"({"signals/0/dataStorageId": [1]})", "signals[0].dataStorageId is an array"},
    {R"({"files/0/storageId": null})", "files[0].storageId is null"},
    {R"({"files/1/pack": 1.5})", "files[1].pack is 1.5"},
    {R"({"signals/0/rowCount": 1e300})",
     "signals[0].rowCount is 1e+300, expected an integer from 0 to 9223372036854775807"},
    {R"({"signals/0/rowCount": 9223372036854775808})", "rowCount is 9223372036854775808"},
    {R"({"files/0/rowCount": -1})", "files[0].rowCount is -1"},
    {R"({"files/0/size": true})", "files[0].size is true"},
    {R"({"signals/0/dimensions": [2, -3]})", "signals[0].dimensions[1] is -3"},
    {R"({"signals/0/dimensions": [4294967296, 4294967296]})",
     "signal -7: 5 samples of the dimensions [4294967296, 4294967296] are more bytes than 64 bits "
     "can count"},
    {R"({"signals/0/timeSpan": [1]})", "signals[0].timeSpan has 1 times, expected two"},
    {R"({"signals/0/timeSpan": [1, "2"]})", R"(signals[0].timeSpan is "2")"},
    {R"({"signals/0/dataType": "Real"})",
     R"(signals[0].dataType is "Real", which is no data type)"},
    {R"({"signals/0/category": 3})", "signals[0].category is 3, expected a category"},
    {R"({"signals/0/name": 3})", "signals[0].name is 3, expected a text"},
    {R"({"signals/0": 3})", "signals[0] is 3, expected an object"},
    {R"({"files": {}})", "files is an object, expected an array"},
    {R"({"packs": null})", "packs is null"},
    {R"({"formatVersion": 0})", "format version 0 does not exist"},
    {R"({"formatVersion": 3000000000})", "is newer than 3"},
    {R"({"formatVersion": "2"})", R"(formatVersion is "2")"},
    {R"({"format": "another"})", "not the description of a recording"},
    {R"({"signals/1/id": -7})", R"("signals" lists signal -7 twice)"},
    {R"({"files/0/storageId": 4})", R"("files" lists storage id 4 twice)"},
    {R"({"packs/1": {"pack": 3, "size": 1, "rowCount": 1,
                     "xxh3_128": "00000000000000000000000000000000"}})",
     R"("packs" lists pack 3 twice)"},
    {R"({"packs/0/pack": -2, "files/1/pack": -2})", R"("packs" lists pack -2, expected 0 or more)"},
    {R"({"files/0/xxh3_128": "short"})", "files[0].xxh3_128 is no checksum"},
    {R"({"files/0/blocks_xxh3_64": "000000000000000g"})", "files[0].blocks_xxh3_64 is no sequence"},
    {R"({"files/0/blocks_xxh3_64": "00000000000000000000000000000000"})",
     "of storage/0 has 2 digests, expected 3 for 600000 bytes"},
    {R"({"packs/0/size": 262144})", "of storage/pack-3.parquet has 2 digests, expected 1"},
    {R"({"files/0/content_xxh3_128": ""})", "files[0].content_xxh3_128 is no checksum"},
    {R"({"files/0/minimum": "1"})", R"(files[0].minimum is "1", expected a number)"},
    {R"({"files/0/maximum": []})", "files[0].maximum is an array, expected a number"},
    {R"({"signals/0/name": "-"})", R"(signals[0] has no "name")"},
    {R"({"files/0/size": "-"})", R"(files[0] has no "size")"},
    {R"({"files/1/firstRow": "-"})", R"(files[1] has no "firstRow")"},
    {R"({"packs": "-"})", R"(the document has no "packs")"},
    {R"({"signals": "-"})", R"(the document has no "signals")"},
};

TEST(RecordingFormat, FaultsAreNamedWithMemberAndValue) {
  const json sound = json::parse(writeRecordingJson(sample(2)));
  for (const Fault& fault : kFaults) {
    json document = sound;
    const json edit = json::parse(fault.edit);
    for (const auto& [path, value] : edit.items()) {
      json& target = document[json::json_pointer("/" + path)];
      const bool isRemoved = value == "-";
      target = value;
      if (isRemoved) {
        const json::json_pointer pointer("/" + path);
        document[pointer.parent_pointer()].erase(pointer.back());
      }
    }
    EXPECT_THAT(errorOf([&] { readRecordingJson(sealed(document), "rec.json"); }),
                AllOf(HasSubstr("rec.json: "), HasSubstr(fault.says)));
  }
  EXPECT_THAT(errorOf([&] { readRecordingJson(R"({"files":[{"size":1,"size":1}]})", ""); }),
              HasSubstr("not the description"));
  const std::string text = sound.dump();
  EXPECT_THAT(errorOf([&] { readRecordingJson(text + "x", "rec.json"); }),
              HasSubstr("rec.json: damaged: no valid JSON at byte"));
  EXPECT_THAT(errorOf([&] { readRecordingJson(R"({"format":"kyr recording","format":"x"})", ""); }),
              HasSubstr("not the description"));
}

TEST(RecordingFormat, CountsUpToTheLargestAreRead) {
  RecordingInfo info = sample(1);
  constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
  info.signals[0].rowCount = info.files[0].rowCount = kMost;
  info.signals[0].dimensions = {0, kMost, kMost};
  info.files[1].size = kMost;
  const RecordingInfo read = readRecordingJson(writeRecordingJson(info), "rec");
  EXPECT_EQ(read.signals[0].rowCount, kMost);
  EXPECT_EQ(read.signals[0].dimensions, info.signals[0].dimensions);
  EXPECT_EQ(read.files[1].size, kMost);
}

// A JSON library would recurse into each level when it copies, prints or destroys the document.
TEST(RecordingFormat, DeepTextsAreRefusedEverywhere) {
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  for (const char* format : {"kyr recording", "kyr live recording"}) {
    const std::string text = R"({"a":)" + deep + R"(,"format":")" + format +
                             R"(","formatVersion":1,"signals":[],"xxh3_128":"x"})";
    for (const std::string& document : {deep, text, R"({"signals":[)" + deep + "]}"}) {
      EXPECT_THAT(errorOf([&] { readRecordingJson(document, "rec"); }), HasSubstr("inside each"));
      EXPECT_THAT(errorOf([&] { readLiveJson(document, "rec"); }), HasSubstr("inside each"));
      EXPECT_TRUE(salvageSignals(document).empty());
    }
  }
  EXPECT_TRUE(parquet::readPartNotes("[" + deep + "]").empty());
  for (const std::string& records :
       {deep, R"([{"dataStorageId":)" + deep + R"(,"signalId":1,"timeStorageId":[1]}])"}) {
    EXPECT_NE(errorOf([&] { parquet::readSignalRecords(records, [](const auto&) {}); }), "");
  }
}

TEST(RecordingFormat, ALiveRecordingHasEachSignalOnce) {
  LiveDescription live;
  live.signals = sample(1).signals;
  EXPECT_EQ(readLiveJson(writeLiveJson(live), "live").signals.size(), 2U);
  live.signals[1].signalId = live.signals[0].signalId;
  EXPECT_THAT(errorOf([&] { readLiveJson(writeLiveJson(live), "live.json"); }),
              AllOf(HasSubstr("live.json: "), HasSubstr("twice")));
  // The one that names files counts, or else the later one.
  live.signals[0].name = "earlier";
  live.signals[1].name = "later";
  const auto nameFiles = [](SignalInfo& signal, bool names) {
    signal.timeStorageId.reset();
    signal.dataStorageId = names ? std::optional(7) : std::nullopt;
  };
  for (const auto& [first, second, kept] :
       {std::tuple(true, false, 0), {false, true, 1}, {true, true, 1}, {false, false, 1}}) {
    nameFiles(live.signals[0], first);
    nameFiles(live.signals[1], second);
    const auto found = salvageSignals(writeLiveJson(live));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].name, live.signals[std::size_t(kept)].name);
  }
}

TEST(RecordingFormat, SignalsBeforeADamagedPlaceAreSalvaged) {
  const std::string text = writeRecordingJson(sample(1));
  EXPECT_EQ(salvageSignals(text).size(), 2U);
  const std::size_t second = text.rfind("2147483647");
  const auto found = salvageSignals(text.substr(0, second));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].name, sample(1).signals[0].name);
  std::string other = text;
  other.replace(text.find("UInt16"), 6, "UInt99");
  ASSERT_EQ(salvageSignals(other).size(), 1U);
  EXPECT_EQ(salvageSignals(other)[0].signalId, 2147483647);
}

// Growing files write their footers again and again, and readers of Parquet limit their texts.
TEST(PartNotes, AreBoundedHoweverManyAndLongTheNamesAre) {
  std::vector<parquet::PartLabel> labels(1000);
  for (std::size_t i = 0; i < labels.size(); ++i) {
    auto signal = std::make_shared<parquet::SignalLabel>();
    signal->signalId = 1000 - static_cast<int>(i);
    signal->name = std::to_string(signal->signalId) + std::string(60'000, 'x');
    signal->unit = std::string(127, 'x') + "°" + std::string(9, 'y');
    labels[i].signal = signal;
    labels[i].next = i + 1 < labels.size() ? &labels[i + 1] : nullptr;
  }
  const std::string text = parquet::writePartNotes(labels.data(), 32);
  EXPECT_LT(text.size(), 16'384U);
  EXPECT_THAT(text, HasSubstr(R"({"others":968})"));
  const auto notes = parquet::readPartNotes(text);
  ASSERT_EQ(notes.size(), 32U);
  EXPECT_EQ(notes[0].signalId, 1);
  EXPECT_EQ(notes[0].name, "1" + std::string(127, 'x'));
  EXPECT_EQ(notes[0].unit, std::string(127, 'x'));
}

}  // namespace
}  // namespace kyr::recording
