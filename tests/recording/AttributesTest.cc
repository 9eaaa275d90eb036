#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {
namespace {

using test::errorOf;
using ::testing::HasSubstr;

const Attributes kAttributes{{"model", R"("pump \"7\"")"},
                             {"parts", R"({"b": [1.50, 1e3], "a": null})"}};
// Without white space, and sorted.
const Attributes kStored{{"model", R"("pump \"7\"")"}, {"parts", R"({"a":null,"b":[1.5,1000.0]})"}};

class RecordingAttributes : public test::RecordingTest {
 protected:
  Attributes read(const fs::path& folder) {
    return RecordingReader(Path::fromFilesystem(folder)).attributes();
  }
  static LiveOptions liveOptions() {
    LiveOptions options;
    options.attributes = kAttributes;
    return options;
  }
};

TEST_F(RecordingAttributes, AreThereWhileItIsRecordedAndAfterwards) {
  const Path folder = Path::fromFilesystem(rec);
  auto live = std::make_unique<LiveRecording>(folder, liveOptions());
  live->addSignal({1, "x", "", "", {}}, Double, Scalar)->appendTime(std::vector{1.0}.data(), 1);
  live->flush();
  EXPECT_EQ(read(rec), kStored);
  EXPECT_EQ(describeLiveRecording(folder).attributes, kStored);
  fs::copy(rec, temp.file("crashed"), fs::copy_options::recursive);
  live->finish();
  EXPECT_EQ(read(rec), kStored);
  recoverRecording(Path::fromFilesystem(temp.file("crashed")));
  EXPECT_EQ(read(temp.file("crashed")), kStored);
}

TEST_F(RecordingAttributes, AreSavedAgainUnlessOthersAreGiven) {
  put(pool, 1, ramp({1, 2, 3}));
  SaveOptions options;
  options.attributes = kAttributes;
  saveRecording(pool, {}, Path::fromFilesystem(rec), options);
  Recording opened = open(rec);
  save(opened.pool(), opened.descriptions(), temp.file("copy"));
  EXPECT_EQ(read(temp.file("copy")), kStored);
  options.attributes = Attributes{{"run", "7"}};
  saveRecording(opened.pool(), opened.descriptions(), Path::fromFilesystem(rec), options);
  EXPECT_EQ(read(rec), *options.attributes);
  // The pool reads the new recording now.
  save(opened.pool(), opened.descriptions(), rec);
  EXPECT_EQ(read(rec), *options.attributes);
}

TEST_F(RecordingAttributes, AreRefusedIfTheyAreNoJson) {
  const std::string deep(100, '[');
  for (const auto& [name, value] : Attributes{{"a", "pump"},
                                              {"b", ""},
                                              {"c", "1 2"},
                                              {"d", "1e999"},
                                              {"e", deep},
                                              {"", "1"},
                                              {"f\xff", "1"},
                                              {"g", "\"\xff\""}}) {
    SaveOptions saving;
    saving.attributes = Attributes{{name, value}};
    LiveOptions live;
    live.attributes = *saving.attributes;
    const Path folder = Path::fromFilesystem(rec);
    EXPECT_THAT(errorOf([&] { saveRecording(pool, {}, folder, saving); }),
                HasSubstr("attribute \"" + name));
    EXPECT_THAT(errorOf([&] { LiveRecording(folder, live); }), HasSubstr("attribute \"" + name));
    EXPECT_FALSE(fs::exists(rec));
  }
}

}  // namespace
}  // namespace kyr::recording
