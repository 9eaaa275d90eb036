#include <algorithm>
#include <functional>

#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/SignalGroup.h"
#include "recording/RecordingTest.h"
#include "support/FaultyDisk.h"

namespace kyr::recording {
namespace {

class SignalGroups : public test::RecordingTest {
 protected:
  Path path() const { return Path::fromFilesystem(rec); }

  LiveOptions options;
  std::unique_ptr<LiveRecording> live;
};

template <typename T>
void expectGroup(RecordingReader& reader, int signals, std::size_t steps) {
  for (int id = 1; id <= signals; ++id) {
    std::vector<T> found(steps);
    ASSERT_EQ(reader.readElements(id, {0, steps}, found.data(), steps * sizeof(T)), steps);
    for (std::size_t i = 0; i < steps; ++i) ASSERT_EQ(found[i], T(id * 7 + int(i))) << id;
    ASSERT_EQ(reader.timeCount(id), steps);
  }
  EXPECT_EQ(reader.withSameTimes(1).size(), std::size_t(signals));
}

// Steps of many signals as arrays are what the signals would have got one by one, also where a call
// of the system fails in between and the same call is made again.
TEST_F(SignalGroups, GroupsAppendStepsOfAllSignals) {
  constexpr int kSignals = 37;
  constexpr std::size_t kSteps = 700;
  std::vector<SignalDescription> descriptions;
  for (int id = 1; id <= kSignals; ++id) descriptions.push_back({id, "", "", "", {}});
  options.storage.batchRows = 300;
  const auto record = [&](auto zero, KYRSignalDataType type, int failAt) {
    using T = decltype(zero);
    live = std::make_unique<LiveRecording>(path(), options);
    const auto group = live->addGroup(descriptions, type);
    EXPECT_EQ(group->signals(), std::size_t(kSignals));
    const auto retried = [](const std::function<void()>& call) {
      try {
        call();
      } catch (const std::exception&) {
        call();
      }
    };
    test::faultyDisk::Plan plan;
    plan.failAt = failAt;
    test::faultyDisk::start(plan);
    for (std::size_t step = 0; step < kSteps;) {
      const std::size_t steps = std::min<std::size_t>(1 + step % 13, kSteps - step);
      std::vector<double> times;
      std::vector<T> samples;
      for (std::size_t end = step + steps; step < end; ++step) {
        times.push_back(double(step));
        for (int id = 1; id <= kSignals; ++id) samples.push_back(T(id * 7 + int(step)));
      }
      retried(
          [&] { group->append(times.data(), steps, samples.data(), samples.size() * sizeof(T)); });
      if (step % 11 == 0) retried([&] { live->flush(); });
    }
    retried([&] { live->finish(); });
    const int calls = test::faultyDisk::stop();
    EXPECT_EQ(faults(rec), "");
    RecordingReader reader(path());
    expectGroup<T>(reader, kSignals, kSteps);
    EXPECT_THROW(group->append(nullptr, 0, "", 1), std::logic_error);
    fs::remove_all(rec);
    return calls;
  };
  record(std::int8_t(), Int8, 0);
  record(std::uint16_t(), UInt16, 0);
  record(float(), Single, 0);
  const int calls = record(double(), Double, 0);
  for (int failAt = 1; failAt <= calls; failAt += 19) record(double(), Double, failAt);
}

TEST_F(SignalGroups, GroupsRefuseWhatMakesNoSteps) {
  live = std::make_unique<LiveRecording>(path(), options);
  const auto group = live->addGroup({{5, "", "", "", {}}, {6, "", "", "", {}}}, Int16);
  const double time = 0;
  const short samples[] = {1, 2};
  EXPECT_THROW(group->append(&time, 1, samples, 3), std::invalid_argument);
  EXPECT_THROW(group->append(&time, 1, samples, 8), std::invalid_argument);
  EXPECT_THROW(group->append(nullptr, 1, samples, 4), std::invalid_argument);
  EXPECT_THROW(group->append(&time, 1, nullptr, 4), std::invalid_argument);
  const SignalDescription seven{7, "", "", "", {}};
  for (const Descriptions& refused :
       {Descriptions{}, Descriptions{seven, seven}, Descriptions{seven, {5, "", "", "", {}}}}) {
    EXPECT_THROW(live->addGroup(refused, Double), std::invalid_argument);
  }
  EXPECT_THROW(live->addGroup({seven}, ByteString), std::invalid_argument);
  group->append(&time, 1, samples, 4);
  live->finish();
  EXPECT_EQ(RecordingReader(path()).signals().size(), 2U);
  EXPECT_THROW(group->append(&time, 1, samples, 4), std::logic_error);
}

}  // namespace
}  // namespace kyr::recording
