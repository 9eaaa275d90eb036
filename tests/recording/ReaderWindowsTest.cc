#include <parquet/column_writer.h>
#include <parquet/file_writer.h>

#include <limits>
#include <random>

#include "recording/ReaderTest.h"

namespace kyr::recording {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Compares windows of times, ascending or not, over several row groups, with a search through all
// times.
class ReaderWindows : public test::ReaderTest {
 protected:
  // A recording of one time file whose row groups may be marked as ascending.
  void record(const std::vector<double>& times, std::size_t groupRows, bool marks) {
    put(pool, 1, {times, std::vector<char>(times.size()), {}, {}}, Int8);
    save(rec);
    if (marks) writeMarked(rec / "storage/0.parquet", times, groupRows);
    listFiles(false);
    pool.getSignal(1)->resetData();
  }

  static void writeMarked(const fs::path& path, const std::vector<double>& times,
                          std::size_t groupRows) {
    using ::parquet::schema::GroupNode;
    const auto node =
        GroupNode::Make("schema", ::parquet::Repetition::REQUIRED,
                        {::parquet::schema::PrimitiveNode::Make(
                            "data", ::parquet::Repetition::REQUIRED, ::parquet::Type::DOUBLE)});
    const auto out = ::arrow::io::FileOutputStream::Open(path).ValueOrDie();
    auto writer = ::parquet::ParquetFileWriter::Open(out, std::static_pointer_cast<GroupNode>(node),
                                                     ::parquet::WriterProperties::Builder()
                                                         .disable_dictionary()
                                                         ->set_sorting_columns({{0, false, false}})
                                                         ->build());
    for (std::size_t at = 0; at < times.size(); at += groupRows) {
      auto* const rows = writer->AppendRowGroup();
      static_cast<::parquet::DoubleWriter*>(rows->NextColumn())
          ->WriteBatch(static_cast<std::int64_t>(std::min(groupRows, times.size() - at)), nullptr,
                       nullptr, times.data() + at);
      rows->Close();
    }
    writer->Close();
  }

  static std::vector<RowRange> expected(const std::vector<double>& times, double from, double to) {
    std::vector<RowRange> ranges;
    for (std::uint64_t i = 0; i < times.size(); ++i) {
      if (!(times[i] >= from && times[i] <= to)) continue;
      if (!ranges.empty() && ranges.back().to == i) {
        ++ranges.back().to;
      } else {
        ranges.push_back({i, i + 1});
      }
    }
    return ranges;
  }

  void expectWindows(const std::vector<double>& times) const {
    const RecordingReader reader = read();
    std::vector<double> ends = times;
    for (const double time : times) ends.push_back(time + 0.25);
    ends.insert(ends.end(), {-1e300, 1e300, kNaN, -std::numeric_limits<double>::infinity()});
    std::minstd_rand random(static_cast<unsigned>(times.size()));
    for (int i = 0; i < 300; ++i) {
      const double from = ends[random() % ends.size()];
      const double to = ends[random() % ends.size()];
      ASSERT_EQ(reader.rowsBetween(1, from, to), expected(times, from, to)) << from << " " << to;
    }
  }
};

TEST_F(ReaderWindows, AreThoseOfALookAtEachTime) {
  const double infinity = std::numeric_limits<double>::infinity();
  struct {
    const char* name;
    std::vector<double> times;
    bool marks;
  } const cases[]{
      {"ascending", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, false},
      {"marked", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, true},
      {"marked, repeated", {0, 1, 1, 1, 1, 1, 1, 1, 2, 2, 3}, true},
      {"marked row groups that do not follow each other", {5, 6, 7, 0, 1, 2, 6, 6, 6}, true},
      {"one row", {4}, true},
      {"falling", {9, 8, 7, 6, 5, 4, 3, 2, 1}, false},
      {"back and forth", {0, 5, 1, 6, 2, 7, 3, 8}, false},
      {"NaN", {0, 1, kNaN, 2, 3, kNaN, kNaN, 4}, false},
      {"NaN alone", {kNaN, kNaN}, false},
      {"infinite", {-infinity, 0, 1, infinity, infinity}, false},
      {"zeros", {-0.0, 0.0, -0.0, 1}, true},
  };
  for (const auto& [name, times, marks] : cases) {
    SCOPED_TRACE(name);
    record(times, 3, marks);
    expectWindows(times);
    fs::remove_all(rec);
  }
}

// Damage in rows that are not needed goes unnoticed, because they are not read.
TEST_F(ReaderWindows, AscendingTimesAreFoundWithTwoRowGroups) {
  std::vector<double> times(400'000);
  for (std::size_t i = 0; i < times.size(); ++i) times[i] = static_cast<double>(i) / 7;
  record(times, 40'000, /*marks=*/true);
  listFiles(/*withBlocks=*/true);
  DiskFile file(rec / "storage/0.parquet", DiskFile::Mode::readWrite);
  for (const std::uint64_t row : {20'000U, 180'000U, 220'000U, 380'000U}) {
    file.writeAt(row * sizeof(double), {"damage"});
  }
  const RecordingReader reader = read();
  EXPECT_EQ(reader.rowsBetween(1, times[130'000], times[290'000]),
            std::vector<RowRange>({{130'000, 290'001}}));
  EXPECT_THROW(reader.times(1), DamagedError);
  EXPECT_EQ(reader.times(1, {290'000, 290'001}), std::vector<double>{times[290'000]});
}

}  // namespace
}  // namespace kyr::recording
