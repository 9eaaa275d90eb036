#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/Recovery.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {

using Values = std::vector<double>;

/// Appends the samples [from, to) of a signal whose sample i is i times \p slope, at the time
/// i / 10.
inline void append(parquet::StreamableSignal& signal, int from, int to, double slope) {
  for (int i = from; i < to; ++i) {
    const double time = i / 10.0;
    const double value = i * slope;
    signal.appendTime(&time, 1);
    signal.appendData(&value, sizeof(value), {}, {});
  }
}

inline Values sloped(int count, double slope) {
  Values values;
  for (int i = 0; i < count; ++i) values.push_back(i * slope);
  return values;
}

inline Values numbersIn(const std::vector<char>& bytes) {
  Values values(bytes.size() / sizeof(double));
  if (!bytes.empty()) std::memcpy(values.data(), bytes.data(), bytes.size());
  return values;
}

/// Two signals of numbers in a live recording, with batches of 16 rows.
class LiveRecordings : public test::RecordingTest {
 protected:
  LiveRecordings() { options.storage.batchRows = 16; }

  Path path() const { return Path::fromFilesystem(rec); }
  RecoveryResult recover() const { return recoverRecording(path()); }

  void begin() {
    live = std::make_unique<LiveRecording>(path(), options);
    a = live->addSignal({1, "a", "m", "first", {}}, Double, Scalar);
    b = live->addSignal({2, "b", "", "", {}}, Double, Scalar);
  }

  // The folder as a crash now would leave it, at the place where recordings are recovered.
  void crash(bool flushesFirst = false) {
    if (flushesFirst) live->flush();
    crashBefore([this] {
      a.reset();
      b.reset();
      live.reset();
    });
  }

  void expectSignal(int id, int count, double slope) {
    Recording opened = open(rec);
    const test::Samples samples = test::read(*opened.pool().getSignal(id));
    EXPECT_EQ(numbersIn(samples.data), sloped(count, slope)) << id;
    ASSERT_EQ(samples.time.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) EXPECT_EQ(samples.time[std::size_t(i)], i / 10.0);
  }

  LiveOptions options;
  std::unique_ptr<LiveRecording> live;
  std::shared_ptr<parquet::StreamableSignal> a;
  std::shared_ptr<parquet::StreamableSignal> b;
};

}  // namespace kyr::recording
