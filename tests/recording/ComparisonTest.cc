#include <cctype>
#include <cmath>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "kyr/recording/Comparison.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {
namespace {

using test::bytesOf;
using test::errorOf;
using test::Samples;
using ::testing::HasSubstr;
using Verdict = SignalVerdict;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinite = std::numeric_limits<double>::infinity();

// Times and values of a scalar signal.
struct Curve {
  std::vector<double> times;
  std::vector<double> values;
  KYRSignalDataType type = Double;

  Curve(std::vector<double> allTimes, std::vector<double> allValues,
        KYRSignalDataType ofType = Double)
      : times(std::move(allTimes)), values(std::move(allValues)), type(ofType) {}
  // "int32 0:1 2:3" has the value 1 at 0 s and 3 at 2 s. Without times: "1 3".
  Curve(const char* text) {  // NOLINT(google-explicit-constructor): tables shall be short
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      if (word == "int32") type = Int32;
      if (word == "int64") type = Int64;
      if (word == "bool") type = Boolean;
      const std::size_t colon = word.find(':');
      if (std::isalpha(word.front()) != 0 && word != "nan") continue;
      if (colon != std::string::npos) times.push_back(std::stod(word.substr(0, colon)));
      values.push_back(std::stod(word.substr(colon == std::string::npos ? 0 : colon + 1)));
    }
  }
};

template <typename T>
std::vector<char> converted(const std::vector<double>& values) {
  return bytesOf(std::vector<T>(values.begin(), values.end()));
}

std::vector<char> bytesOfCurve(const Curve& curve) {
  if (curve.type == Int32) return converted<std::int32_t>(curve.values);
  if (curve.type == Int64) return converted<std::int64_t>(curve.values);
  return curve.type == Boolean ? converted<char>(curve.values) : bytesOf(curve.values);
}

class ComparisonTest : public test::RecordingTest {
 protected:
  struct Signal {
    SignalDescription description;
    Samples samples;
    KYRSignalDataType type = Double;
    KYRSignalCategory category = Scalar;
  };

  static Signal signal(const std::string& name, const Curve& curve, const std::string& unit = "") {
    return {{0, name, unit, "", {}}, {curve.times, bytesOfCurve(curve), {}, {}}, curve.type};
  }

  // Makes the recording anew. Ids count from 1.
  fs::path record(const std::string& name, std::vector<Signal> signals) const {
    fs::path folder = temp.file(name);
    fs::remove_all(folder);
    parquet::SignalPool own{parquet::SafeStorage()};
    Descriptions descriptions;
    for (Signal& each : signals) {
      each.description.signalId = static_cast<int>(descriptions.size()) + 1;
      put(own, each.description.signalId, each.samples, each.type, each.category);
      descriptions.push_back(each.description);
    }
    save(own, descriptions, folder);
    return folder;
  }

  Comparison compare(const std::vector<Signal>& reference, const std::vector<Signal>& other,
                     const ComparisonOptions& options = {}) const {
    return compareRecordings(Path::fromFilesystem(record("a", reference)),
                             Path::fromFilesystem(record("b", other)), options);
  }

  SignalComparison compare(const Curve& reference, const Curve& other,
                           const ComparisonOptions& options = {}) const {
    return compare({signal("x", reference)}, {signal("x", other)}, options).signals.at(0);
  }

  static ComparisonOptions within(double atol, double rtol = 0, double rangeTol = 0,
                                  double timeTol = 0) {
    ComparisonOptions options;
    options.atol = atol;
    options.rtol = rtol;
    options.rangeTol = rangeTol;
    options.timeTol = timeTol;
    return options;
  }
};

struct Case {
  const char* name;
  const char* reference;
  const char* other;
  Verdict verdict;
  std::uint64_t compared;
  std::uint64_t out = 0;
  std::optional<double> firstOut = {};
  std::optional<double> error = {};  // the worst
};

class ComparisonCases : public ComparisonTest {
 protected:
  void check(const ComparisonOptions& options, const std::vector<Case>& cases) const {
    for (const Case& each : cases) {
      SCOPED_TRACE(each.name);
      const SignalComparison found = compare(each.reference, each.other, options);
      EXPECT_EQ(found.verdict, each.verdict);
      EXPECT_EQ(found.rowsOut, each.out);
      EXPECT_EQ(found.firstOut, each.firstOut);
      if (!found.isKnownEqual) {
        EXPECT_EQ(found.rowsCompared, each.compared);
      }
      if (!each.error) continue;
      ASSERT_TRUE(found.worst);
      EXPECT_DOUBLE_EQ(found.worst->error, *each.error);
    }
  }

  static constexpr Verdict equal = Verdict::equal;
  static constexpr Verdict differs = Verdict::differs;
};

TEST_F(ComparisonCases, WithoutTolerance) {
  check({}, {
                {"one sample", "0:0 1:1 2:2", "0:0 1:1.5 2:2", differs, 3, 1, 1, 0.5},
                {"NaN for a number", "0:0 1:1", "0:0 1:nan", differs, 2, 1, 1, kInfinite},
                {"NaN of other bits", "0:nan 1:1", "0:-nan 1:1", equal, 2},
                {"another zero", "0:0 1:1", "0:-0.0 1:1", differs, 2, 1, 0, 0},
                {"one time more", "0:0 1:1 2:2", "0:0 1:1 1.5:1.5 2:2", differs, 4, 1, 1.5},
                {"one time moved", "0:0 1:1 2:2", "0:0 1.25:1 2:2", differs, 4, 2, 1},
                {"shorter", "0:0 1:1 2:2", "0:0 1:1", differs, 3, 1, 2},
                {"a time repeated", "0:0 1:1 1:2", "0:0 1:1", differs, 3, 1, 1},
                {"empty", "", "", equal, 0},
                {"empty and not", "", "0:0 1:1", differs, 2, 2, 0},
                {"times fall", "0:0 2:1 1:2", "0:0 2:1 1:3", differs, 3, 1, 1, 1},
                {"no times", "5 6 7", "5 6 8 9", differs, 4, 2, 2, 1},
            });
}

TEST_F(ComparisonCases, Values) {
  check(within(0.5), {
                         {"at the tolerance", "0:2", "0:2.5", equal, 1, 0, {}, 0.5},
                         {"above it", "0:2", "0:2.75", differs, 1, 1, 0, 0.75},
                         {"NaN for NaN", "0:nan 1:1", "0:nan 1:1.5", equal, 2},
                         {"NaN", "0:nan 1:1", "0:1 1:1", differs, 2, 1, 0, kInfinite},
                         {"zeros", "0:0 1:1", "0:-0.0 1:1", equal, 2},
                         {"no times", "5 6 7", "5 6 7.5 9", equal, 3, 0, {}, 0.5},
                         {"times fall", "0:0 2:1 1:2", "0:0 2:1 1:3", differs, 3, 1, 1, 1},
                         {"other types", "int32 0:3 1:4", "0:3 1:4.25", equal, 2, 0, {}, 0.25},
                         {"truth", "bool 0:1 1:0", "bool 0:1 1:1", differs, 2, 1, 1, 1},
                     });
  // Integers that no double tells apart.
  check(within(1), {{"integers", "int64 0:9007199254740992", "int64 0:9007199254740994", differs, 1,
                     1, 0, 2}});
  check(within(0, 0, 1), {{"and their range", "int64 0:-1 1:9007199254740992",
                           "int64 0:9007199254740992 1:9007199254740992", equal, 2}});
  check(within(0, 0.125), {
                              {"part of the reference", "0:-8", "0:-9", equal, 1, 0, {}, 1},
                              {"and not of the other", "0:7", "0:8", differs, 1, 1, 0, 1},
                              {"infinities", "0:inf 1:1", "0:inf 1:1.125", equal, 2},
                              {"no infinity", "0:inf", "0:1e308", differs, 1, 1, 0, kInfinite},
                              {"an infinity", "0:1e308", "0:inf", differs, 1, 1, 0, kInfinite},
                              {"small", "0:1e-300", "0:2e-300", differs, 1, 1, 0, 1e-300},
                              {"and near", "0:2e-300", "0:2.1e-300", equal, 1},
                          });
  check(within(0.5, 0.125), {{"the larger tolerance", "0:8", "0:9", equal, 1, 0, {}, 1}});
  check(within(0, 0, 0.125),
        {
            {"part of the range", "0:-4 1:0 2:4", "0:-3 1:-1 2:4", equal, 3, 0, {}, 1},
            {"beyond it", "0:-4 1:0 2:4", "0:-2.5 1:0 2:4", differs, 3, 1, 0, 1.5},
            {"a range that no double holds", "0:-1.7e308 1:1.7e308", "0:-1.7e308 1:0", differs, 2,
             1, 1, 1.7e308},
        });
}

TEST_F(ComparisonCases, Curves) {
  check(within(0.5),
        {
            {"more samples on the line", "0:0 2:4", "0:0 0.5:1 1:2 2:4", equal, 4},
            {"a sample beside it", "0:0 2:4", "0:0 0.5:2 2:4", differs, 3, 1, 0.5, 1},
            {"integers have no line", "int32 0:0 2:4", "int32 0:0 1:2 2:4", differs, 3, 1, 1, 2},
            {"one of them neither", "0:0 2:4", "int32 0:0 1:2 2:4", differs, 3, 1, 1, 2},
            {"integers that repeat", "int32 0:0 2:4", "int32 0:0 1:0 2:4", equal, 3},
            {"a NaN breaks the line", "0:0 1:nan 2:2", "0:0 1:nan 1.5:1.5 2:2", differs, 4, 1, 1.5,
             kInfinite},
            {"a jump", "0:0 1:0 1:1 2:1", "0:0 1:0 1:1.5 2:1", equal, 4},
            {"a jump that turns round", "0:0 1:0 1:1 2:1", "0:0 1:1 1:0 2:1", differs, 4, 2, 1, 1},
            {"a jump and a ramp", "0:0 1:0 1:1 2:1", "0:0 1:1 2:1", differs, 4, 1, 1, 1},
            {"integers jump", "int32 0:0 1:0 1:1 2:1", "int32 0:0 1:1 2:1", equal, 4},
            {"a peak in a jump", "0:0 1:0 1:9 1:1 2:1", "0:0 1:0 1:1 2:1", differs, 5, 1, 1, 8},
            {"what a jump passes", "0:0 1:0 1:2 1:4 2:4", "0:0 1:0 1:4 2:4", equal, 5},
            {"and integers do not", "int32 0:0 1:0 1:2 1:4 2:4", "int32 0:0 1:0 1:4 2:4", differs,
             5, 1, 1, 2},
            {"a peak that repeats", "0:0 1:0 1:20 1:9 2:9", "0:0 1:0 1:20 1:20 1:9 2:9", equal, 6},
            {"and of integers", "int32 0:0 1:0 1:20 1:9 2:9", "int32 0:0 1:0 1:20 1:20 1:9 2:9",
             equal, 6},
            {"times far apart", "-1e308:0 1e308:4", "-1e308:0 0:2 1e308:4", equal, 3},
            {"a late jump", "0:0 1:0 1:1 2:1", "0:0 1.25:0 1.25:1 2:1", differs, 6, 2, 1, 1},
        });
  const char* const jump = "int32 0:6 1:6 1:0 2:0";
  check(within(0.5, 1), {{"nearest", jump, "int32 0:6 1:6 1:2 1:0 2:0", equal, 5, 0, {}, 4}});
}

TEST_F(ComparisonCases, TimesAndCurves) {
  check(within(0.5, 0, 0, 0.125),
        {
            {"a late jump", "0:0 1:0 1:1 2:1", "0:0 1.25:0 1.25:1 2:1", equal, 6},
            {"too late", "0:0 1:0 1:1 2:1", "0:0 1.5:0 1.5:1 2:1", differs, 6, 2, 1, 1},
            {"a late gear", "int32 0:1 1:3 2:3", "int32 0:1 1.25:3 2:3", equal, 4},
            {"a gear that never was", "int32 0:1 1:3 2:3", "int32 0:1 1:2 1.125:3 2:3", differs, 4,
             1, 1, 1},
            {"a peak", "0:0 1:0 2:0", "0:0 1:3 2:0", differs, 3, 1, 1, 3},
            {"a slope", "0:0 1:4 2:8", "0:0.5 1:5 2:8.5", equal, 3, 0, {}, 0.5},
            {"times fall", "0:0 2:1 1:2", "0.25:0 2:1 1.5:2", differs, 3, 1, 1},
        });
  check(within(0, 0, 0, 0.125), {{"alone", "0:0 1:0 1:1 2:1", "0:0 1.25:0 1.25:1 2:1", equal, 6}});
}

TEST_F(ComparisonTest, TellsTheWorstSample) {
  const Curve reference{{0, 1, 2, 3}, {10, 100, 1000, 10}};
  const Curve other{{0, 1, 2.5, 3}, {10, 105, 505, 12}};
  const SignalComparison found = compare(reference, other, within(1, 0.01));
  // At 1 s the error is 5 of 1 allowed; at 2 s, where the line is at 371.7, 628 of 10.
  ASSERT_TRUE(found.worst);
  EXPECT_DOUBLE_EQ(found.worst->time, 2);
  EXPECT_EQ(found.worst->row, 2U);
  EXPECT_EQ(found.worst->otherRow, 1U);
  EXPECT_EQ(found.worst->reference, 1000);
  EXPECT_NEAR(found.worst->other, 105 + 400 / 1.5, 1e-9);
  EXPECT_DOUBLE_EQ(found.worst->tolerance, 10);
  EXPECT_NEAR(found.worst->excess(), (1000 - 105 - 400 / 1.5) / 10, 1e-9);
  EXPECT_EQ(found.rowsOut, 3U);
  EXPECT_EQ(found.firstOut, 1);
}

TEST_F(ComparisonTest, DifferentEndsAreTold) {
  const Curve reference{{0, 1, 2, 3}, {0, 1, 2, 3}};
  const Curve shorter{{0.5, 1, 2.5}, {0.5, 1, 2.5}};
  ComparisonOptions options = within(1e-9);
  SignalComparison found = compare(reference, shorter, options);
  EXPECT_EQ(found.verdict, Verdict::equal);
  EXPECT_TRUE(found.endsDiffer);
  EXPECT_EQ(found.rowsCompared, 4U);
  ASSERT_TRUE(found.comparedSpan && found.otherSpan);
  EXPECT_EQ(found.comparedSpan->from, 0.5);
  EXPECT_EQ(found.comparedSpan->to, 2.5);
  EXPECT_FALSE(compare(reference, shorter, within(0, 0, 0, 0.25)).endsDiffer);
  options.needsSameEnds = true;
  EXPECT_EQ(compare(reference, shorter, options).verdict, Verdict::differs);
  EXPECT_EQ(compare(reference, reference, options).verdict, Verdict::equal);

  // The difference of these times is more than any number.
  const Curve whole{"-1e308:0 1e308:4"};
  EXPECT_TRUE(compare(whole, "-1e308:0 0:2", within(1e-9)).endsDiffer);
  EXPECT_EQ(compare(whole, "-1e308:0 1e308:5", within(0, 0, 0, 0.25)).timeTolerance, 5e307);

  // Where nothing can be compared, nothing is equal.
  for (const Curve& other : {Curve{{7, 8}, {7, 8}}, Curve{{}, {}}}) {
    found = compare(reference, other, within(1e9));
    EXPECT_EQ(found.verdict, Verdict::differs);
    EXPECT_EQ(found.rowsCompared, 0U);
    EXPECT_FALSE(found.comparedSpan);
  }
}

TEST_F(ComparisonTest, DescriptionsDiffer) {
  const Curve ramp{{0, 1}, {3, 4}};
  const Comparison units = compare({signal("x", ramp, "m")}, {signal("x", ramp, "km")}, within(1));
  EXPECT_EQ(units.signals[0].verdict, Verdict::notComparable);
  EXPECT_EQ(units.signals[0].differences.at(0).other, "km");

  // Numbers of another type are the same numbers, but not the same bits.
  const Curve integers{{0, 1}, {3, 4}, Int32};
  for (const bool hasTolerance : {false, true}) {
    const auto found = compare(ramp, integers, within(hasTolerance ? 1e-9 : 0));
    EXPECT_EQ(found.verdict, hasTolerance ? Verdict::equal : Verdict::differs);
    EXPECT_EQ(found.differences.at(0).what, "type");
    EXPECT_EQ(found.rowsOut, 0U);
  }

  // Times on one side only cannot be brought together.
  const auto found = compare(ramp, Curve{{}, {3, 4}}, within(1));
  EXPECT_EQ(found.verdict, Verdict::notComparable);
  EXPECT_EQ(found.differences.at(0).what, "times");
}

TEST_F(ComparisonTest, MatricesAreComparedByElement) {
  const auto matrix = [](std::vector<double> elements, std::vector<std::size_t> shape) {
    const std::size_t rows = elements.size() / (shape[0] * shape[1]);
    Samples samples{{0, 1, 2}, bytesOf(elements), {}, {}};
    samples.time.resize(rows);
    samples.dims.assign(rows, shape);
    samples.lengths.assign(rows, static_cast<int>(shape[0] * shape[1]));
    return Signal{{0, "m", "", "", shape}, samples, Double, FixedDim};
  };
  const Signal reference = matrix({0, 0, 0, 0, 8, 80, 800, 0}, {2, 2});
  // The range of the first element is 8, that of the second 80.
  const auto found = [&](const Signal& other, const ComparisonOptions& options) {
    return compare({reference}, {other}, options).signals.at(0);
  };
  const Signal other = matrix({0, 0, 0, 0, 9, 90, 900, 0}, {2, 2});
  EXPECT_EQ(found(other, within(0, 0, 0.125)).verdict, Verdict::equal);
  const SignalComparison some = found(other, within(10));
  EXPECT_EQ(some.verdict, Verdict::differs);
  EXPECT_EQ(some.rowsOut, 1U);
  EXPECT_EQ(some.worst->element, 2U);
  EXPECT_EQ(some.worst->error, 100);
  EXPECT_EQ(found(matrix({0, 0, 0, 0, 8, 80, 800, 0}, {4, 1}), within(1)).verdict,
            Verdict::notComparable);

  // Halfway between the two matrices.
  Signal between = matrix({0, 0, 0, 0, 4, 40, 401, 0, 8, 80, 800, 0}, {2, 2});
  between.samples.time = {0, 0.5, 1};
  EXPECT_EQ(found(between, within(1)).verdict, Verdict::equal);
  EXPECT_EQ(found(between, within(0.5)).worst->element, 2U);
}

TEST_F(ComparisonTest, ShapesThatVaryAreComparedSampleBySample) {
  const auto samples = [](std::vector<double> times, std::vector<double> elements,
                          const test::Dims& shapes) {
    Samples all{std::move(times), bytesOf(elements), shapes, {}};
    for (const auto& shape : shapes) all.lengths.push_back(static_cast<int>(shape[0] * shape[1]));
    return Signal{{0, "m", "", "", {}}, all, Double, VarDim};
  };
  const Signal reference = samples({0, 1, 2}, {1, 2, 3, 4, 5, 6, 7}, {{1, 2}, {2, 2}, {1, 1}});
  const auto found = [&](const Signal& other, const ComparisonOptions& options) {
    return compare({reference}, {other}, options).signals.at(0);
  };
  for (const ComparisonOptions& options : {ComparisonOptions(), within(0.25)}) {
    // One element, one shape, one sample that is missing, one that is at another time.
    auto all = found(samples({0, 1, 2}, {1, 2, 3, 4, 5, 7, 7}, {{1, 2}, {2, 2}, {1, 1}}), options);
    EXPECT_EQ(std::pair(all.rowsOut, all.firstOut), std::pair(std::uint64_t{1}, std::optional(1.)));
    EXPECT_EQ(all.worst->element, 3U);
    all = found(samples({0, 1, 2}, {1, 2, 3, 4, 5, 6, 7}, {{2, 1}, {2, 2}, {1, 1}}), options);
    EXPECT_EQ(std::pair(all.rowsOut, all.firstOut), std::pair(std::uint64_t{1}, std::optional(0.)));
    all = found(samples({0, 2}, {1, 2, 7}, {{1, 2}, {1, 1}}), options);
    EXPECT_EQ(std::pair(all.rowsOut, all.rowsOnlyInReference),
              std::pair(std::uint64_t{1}, std::uint64_t{1}));
    EXPECT_EQ(all.rowsCompared, 3U);
  }
  const auto near = samples({0, 1, 2}, {1, 2, 3, 4, 5, 6.25, 7}, {{1, 2}, {2, 2}, {1, 1}});
  EXPECT_EQ(found(near, within(0.25)).verdict, Verdict::equal);
  EXPECT_EQ(found(near, {}).verdict, Verdict::differs);
}

TEST_F(ComparisonTest, TextHoldsUntilTheNext) {
  const auto text = [](std::vector<double> times, const std::vector<std::string>& texts) {
    Samples all{std::move(times), {}, {}, {}};
    for (const std::string& each : texts) {
      all.data.insert(all.data.end(), each.begin(), each.end());
      all.lengths.push_back(static_cast<int>(each.size()));
    }
    return Signal{{0, "text", "", "", {}}, all, Binary, Bus};
  };
  const Signal reference = text({0, 2}, {"off", "on"});
  const auto found = [&](const Signal& other, const ComparisonOptions& options) {
    return compare({reference}, {other}, options).signals.at(0);
  };
  EXPECT_EQ(found(text({0, 2}, {"off", "on"}), {}).verdict, Verdict::equal);
  EXPECT_EQ(found(text({0, 2}, {"off", "in"}), within(1e9)).rowsOut, 1U);
  EXPECT_EQ(found(text({0, 1, 2}, {"off", "off", "on"}), within(1e9)).verdict, Verdict::equal);
  const auto early = text({0, 1.5, 2}, {"off", "on", "on"});
  EXPECT_EQ(found(early, within(0, 0, 0, 0.125)).firstOut, 1.5);
  EXPECT_EQ(found(early, within(0, 0, 0, 0.25)).verdict, Verdict::equal);
  // The bytes of a bus are no numbers, whatever its data type is.
  const auto bus = [](const std::vector<double>& times, const std::vector<double>& numbers) {
    const Samples samples{times, bytesOf(numbers), {{1}}, std::vector<int>(times.size(), 1)};
    return Signal{{0, "bus", "", "", {}}, samples, Double, Bus};
  };
  EXPECT_TRUE(compare({bus({0, 2}, {1, 8})}, {bus({0, 1, 2}, {1, 1, 8})}, within(1)).isEqual());
}

TEST_F(ComparisonTest, SignalsAreFoundByName) {
  const Curve low{{0, 1}, {1, 1}};
  const Curve high{{0, 1}, {5, 5}};
  const std::vector<Signal> reference{signal("a", low), signal("b", high), signal("p[1]", low),
                                      signal("twice", low, "m"), signal("twice", high, "s")};
  const std::vector<Signal> other{signal("twice", high, "s"), signal("twice", low, "m"),
                                  signal("renamed", low), signal("b", low), signal("p1", low)};
  const auto verdicts = [&](const ComparisonOptions& options) {
    std::string text;
    for (const SignalComparison& each : compare(reference, other, options).signals) {
      text += each.name + ": " + std::string(verdictName(each.verdict)) + "\n";
    }
    return text;
  };
  ComparisonOptions options;
  EXPECT_EQ(verdicts(options),
            "b: differs\na: only in reference\np[1]: only in reference\nrenamed: only in other\n"
            "p1: only in other\ntwice: equal\ntwice: equal\n");
  options.otherNames = {{"a", "renamed"}};
  options.ignored = {"p*", "b"};
  EXPECT_EQ(verdicts(options), "a: equal\ntwice: equal\ntwice: equal\n");
  options.ignored.clear();
  options.signals = {"p[1]", "[ab]"};  // a name, and a pattern
  EXPECT_EQ(verdicts(options), "b: differs\np[1]: only in reference\na: equal\n");

  const auto refusal = [&](ComparisonOptions asked) {
    return errorOf([&] { compare(reference, other, asked); });
  };
  options.signals = {"renamed"};
  EXPECT_THAT(refusal(options), HasSubstr("\"renamed\""));
  options.signals = {"c*"};
  EXPECT_THAT(refusal(options), HasSubstr("\"c*\""));
  options = {};
  options.otherNames = {{"a", "renamd"}};
  EXPECT_THAT(refusal(options), HasSubstr("\"renamed\""));
  EXPECT_THAT(refusal(within(-1)), HasSubstr("atol is -1"));
  EXPECT_THAT(refusal(within(0, 0, 0, kNaN)), HasSubstr("timeTol is nan"));
}

TEST_F(ComparisonTest, TheWorstSignalComesFirst) {
  const auto all = [&](const std::vector<double>& values) {
    std::vector<Signal> signals;
    for (std::size_t i = 0; i < values.size(); ++i) {
      signals.push_back(signal(std::string(1, char('a' + i)), {{0, 1}, {values[i], 1}}));
    }
    return signals;
  };
  const auto order = [&](const ComparisonOptions& options) {
    std::string names;
    for (const SignalComparison& each :
         compare(all({1, 1000, 10, 4}), all({1, 1010, 15, 5}), options).signals) {
      names += each.name;
    }
    return names;
  };
  EXPECT_EQ(order(within(0.5)), "bcda");  // errors of 10, 5 and 1
  EXPECT_EQ(order({}), "cdba");           // by what part of the values they are
}

// Rows lie in several blocks in memory. What is told of a few of them must not depend on that.
TEST_F(ComparisonTest, LongSignalsAreReadInBlocks) {
  constexpr int kRows = 200'000;
  Curve reference("");
  for (int i = 0; i < kRows; ++i) {
    reference.times.push_back(std::floor(i / 4.0));  // each time four times
    reference.values.push_back(i % 1000);
  }
  Curve other = reference;
  // The first and last rows of blocks.
  for (const std::size_t row : {0U, 65'535U, 65'536U, 131'071U, 131'072U, 199'999U})
    other.values[row] += 3;
  EXPECT_EQ(compare(reference, other).rowsOut, 6U);
  EXPECT_EQ(compare(reference, other, within(1)).rowsOut, 6U);
  // From the middle on, the other signal has one time more in each block.
  Curve denser = reference;
  for (const std::ptrdiff_t row : {196'608, 131'072, 120'000}) {
    denser.times.insert(denser.times.begin() + row, denser.times[std::size_t(row)] - 0.5);
    denser.values.insert(denser.values.begin() + row, 7777);
  }
  SignalComparison found = compare(reference, denser);
  EXPECT_EQ(std::pair(found.rowsOut, found.rowsOnlyInOther),
            std::pair(std::uint64_t{3}, std::uint64_t{3}));
  found = compare(reference, denser, within(1));
  EXPECT_EQ(found.rowsOut, 3U);
  EXPECT_EQ(found.rowsCompared, std::uint64_t{kRows + 3});
  EXPECT_EQ(found.firstOut, 29'999.5);
  // Within 1 s, a curve has had all values of that second, but for those beyond its ends.
  EXPECT_EQ(compare(reference, other, within(0.5, 0, 0, 1.0 / 49'999)).rowsOut, 2U);
  EXPECT_EQ(compare(reference, denser, within(0.5, 0, 0, 1.0 / 49'999)).rowsOut, 3U);
}

TEST_F(ComparisonTest, CanBeStopped) {
  ComparisonOptions options;
  options.checkpoint = [] { throw std::runtime_error("stopped"); };
  EXPECT_EQ(errorOf([&] { compare("0:0 1:1", "0:0 1:2", options); }), "stopped");
}

TEST_F(ComparisonTest, DamageIsNoDifference) {
  const Curve ramp{{0, 1}, {3, 4}};
  const fs::path a = record("a", {signal("x", ramp)});
  const fs::path b = record("b", {signal("x", {{0, 1}, {3, 5}})});
  unshare(b);
  for (const auto& file : fs::directory_iterator(b / "storage")) fs::resize_file(file.path(), 40);
  EXPECT_THAT(errorOf([&] { compareRecordings(Path::fromFilesystem(a), Path::fromFilesystem(b)); }),
              HasSubstr("storage"));
}

}  // namespace
}  // namespace kyr::recording
