#include <gmock/gmock.h>

#include <random>
#include <tuple>

#include "kyr/parquet/ParquetSignal.h"
#include "support/StreamTest.h"

namespace kyr::test {
namespace {

using Kind = std::tuple<KYRSignalCategory, KYRSignalDataType>;

// Whether the lengths decide how many bytes a sample has, not the shapes.
bool isSized(KYRSignalCategory category, KYRSignalDataType type) {
  return type == Binary || ((category == Bus || category == VarDimBus) && type != ByteString);
}

// \p rows samples of random bytes and varied shapes, in the form that both modes take.
// \param empties  whether some of varied length are empty
Samples samplesOf(KYRSignalCategory category, KYRSignalDataType type, std::size_t rows,
                  bool empties) {
  const bool variable = category == VarDim || category == VarDimBus;
  const bool sized = isSized(category, type);
  const bool shaped = category != Scalar || type == ByteString;
  Samples samples;
  std::size_t elements = 0;
  if (shaped && !variable) samples.dims = {{2, 3}};
  for (std::size_t i = 0; i < rows; ++i) {
    samples.time.push_back(0.25 * static_cast<double>(i));
    const bool empty = empties && i % 7 == 3;
    if (variable) samples.dims.push_back({empty ? 0 : i % 3 + 1, i % 4 + 1});
    if (sized) samples.lengths.push_back(empty ? 0 : static_cast<int>(i % 5 + 1));
    elements += sized      ? static_cast<std::size_t>(samples.lengths[i])
                : variable ? samples.dims[i][0] * samples.dims[i][1]
                : shaped   ? 6
                           : 1;
  }
  std::mt19937 random(static_cast<unsigned>(type));
  samples.data.resize(elements * (sized ? 1 : parquet::elementWidth(type)));
  for (char& byte : samples.data) byte = static_cast<char>(random());
  return samples;
}

// Some rows of the samples.
class Cutter {
 public:
  Cutter(const Samples& samples, std::size_t elementWidth) : samples_(samples), ends_{0} {
    const std::size_t width = samples.lengths.empty() ? elementWidth : 1;
    for (std::size_t row = 0; row < samples.time.size(); ++row) {
      std::size_t elements = 1;
      const auto& dims = samples.dims;
      if (!samples.lengths.empty()) {
        elements = static_cast<std::size_t>(samples.lengths[row]);
      } else if (!dims.empty()) {
        for (const auto extent : dims[dims.size() == 1 ? 0 : row]) elements *= extent;
      }
      ends_.push_back(ends_.back() + elements * width);
      lengths_.push_back(static_cast<int>(elements));
    }
  }

  // The arguments that append rows [from, to).
  Samples cut(std::size_t from, std::size_t to) const {
    const auto part = [from, to](const auto& rows) {
      using Rows = std::decay_t<decltype(rows)>;
      const auto begin = rows.begin();
      return rows.empty() ? Rows()
                          : Rows(begin + static_cast<std::ptrdiff_t>(from),
                                 begin + static_cast<std::ptrdiff_t>(to));
    };
    const auto byte = samples_.data.begin();
    return {part(samples_.time),
            {byte + static_cast<std::ptrdiff_t>(ends_[from]),
             byte + static_cast<std::ptrdiff_t>(ends_[to])},
            samples_.dims.size() == 1 ? samples_.dims : part(samples_.dims),
            part(samples_.lengths)};
  }

  // The result of reading rows [from, to).
  Samples expected(std::size_t from, std::size_t to) const {
    from = std::min(from, samples_.time.size());
    to = std::min(std::max(from, to), samples_.time.size());
    Samples result = cut(from, to);
    const bool flat = samples_.dims.empty() && samples_.lengths.empty();
    if (!flat)
      result.lengths.assign(lengths_.begin() + static_cast<std::ptrdiff_t>(from),
                            lengths_.begin() + static_cast<std::ptrdiff_t>(to));
    return result;
  }

 private:
  const Samples& samples_;
  std::vector<std::size_t> ends_;
  std::vector<int> lengths_;
};

class StreamRoundTrip : public StreamTest {
 protected:
  // Appends the samples, and reads ranges around each boundary of batches and around the end.
  void roundTrip(const Kind& kind, std::size_t rows, std::size_t chunkRows, std::size_t batchRows) {
    const auto [category, type] = kind;
    const Samples samples = samplesOf(category, type, rows, /*empties=*/chunkRows > 1);
    const Cutter cutter(samples, parquet::elementWidth(type));
    // A new registry, so that no earlier signal is recognised.
    Signal signal(writer, std::make_shared<Signal::Checker>(), std::make_shared<Signal::Chains>(),
                  batchRows);
    signal.setCategory(category);
    signal.setDataType(type);
    for (std::size_t from = 0; from < rows; from += chunkRows) {
      const Samples chunk = cutter.cut(from, std::min(from + chunkRows, rows));
      signal.appendTime(chunk.time.data(), chunk.time.size());
      signal.appendData(chunk.data.data(), chunk.data.size(), chunk.dims, chunk.lengths);
      ASSERT_LT(signal.rowsBuffered(Part::data), batchRows);
    }
    signal.finish();
    ASSERT_TRUE(signal.writeStatus().ok());
    std::set<std::size_t> bounds{0, 1, rows - 1, rows, rows + 1};
    for (const std::size_t batch : {std::size_t{1}, rows / batchRows}) {
      for (const int by : {-1, 0, 1}) bounds.insert(batch * batchRows + static_cast<unsigned>(by));
    }
    for (const std::size_t from : bounds) {
      for (const std::size_t to : bounds) {
        if (to < from || to > rows + 1) continue;
        Samples found{{}, {'?'}, {{99}}, {99}};
        std::vector<char> times{'?'};
        signal.getTime(from, to, times);
        signal.getData(from, to, found.data, found.dims, found.lengths);
        Samples expected = cutter.expected(from, to);
        const bool shapes = (category == VarDim || category == VarDimBus) && from <= rows;
        if (!shapes) expected.dims = {{99}};  // left as they are
        ASSERT_EQ(times, bytesOf(expected.time)) << from << " to " << to;
        found.time = expected.time;
        ASSERT_TRUE(found == expected) << from << " to " << to;
      }
    }
    kept = samples;
    streamed = {writer->read(signal.getStorageId(Part::time), 0, kAll),
                writer->read(signal.getStorageId(Part::data), 0, kAll)};
  }

  Samples kept;
  std::vector<std::shared_ptr<::arrow::Table>> streamed;
};

std::shared_ptr<::arrow::Array> arrayOf(const ::arrow::Table& table, int column) {
  return ::arrow::Concatenate(table.column(column)->chunks()).ValueOrDie();
}

class StreamRoundTripOfKind : public StreamRoundTrip, public ::testing::WithParamInterface<Kind> {};

TEST_P(StreamRoundTripOfKind, StoresTheColumnsOfAWholeFileSignal) {
  const auto [category, type] = GetParam();
  const bool bus = category == Bus || category == VarDimBus;
  roundTrip(GetParam(), category == Scalar ? 9001 : 301, 7, 100);
  if (HasFatalFailure() || (bus && type != Binary && type != ByteString)) return;
  const Folder folder(temp.file("whole"));
  parquet::ParquetSignal whole(std::make_shared<parquet::ParquetSerializerWorker>(folder.path()),
                               kNone, kNone);
  whole.setCategory(category);
  whole.setDataType(type);
  write(whole, kept);
  ASSERT_TRUE(whole.writeStatus().ok()) << whole.writeStatus();
  parquet::StreamableWriter adopting(folder.path());
  for (const int part : {0, 1}) {
    const auto table = adopting.read(whole.getStorageId(static_cast<char>(part)), 0, kAll);
    const auto& stream = streamed[static_cast<std::size_t>(part)];
    ASSERT_EQ(table->schema()->ToString(), stream->schema()->ToString());
    for (int column = 0; column < table->num_columns(); ++column) {
      EXPECT_TRUE(arrayOf(*table, column)
                      ->Equals(arrayOf(*stream, column), ::arrow::EqualOptions().nans_equal(true)));
    }
  }
}

// All combinations except lists of blobs, which neither mode can store.
std::vector<Kind> kinds() {
  std::vector<Kind> result;
  for (const auto category : {Scalar, FixedDim, VarDim, Bus, VarDimBus}) {
    for (const auto type : {Double, Single, Int8, UInt8, Int16, UInt16, Int32, UInt32, Boolean,
                            Int64, UInt64, UInt64Alt, UInt32Alt, ByteString, Binary}) {
      if (type == ByteString && (category == FixedDim || category == VarDim)) continue;
      result.emplace_back(category, type);
    }
  }
  return result;
}

INSTANTIATE_TEST_SUITE_P(All, StreamRoundTripOfKind, ::testing::ValuesIn(kinds()));

TEST_F(StreamRoundTrip, IsTheSameForAllLengthsOfChunksAndBatches) {
  const std::vector<Kind> ofEachCategory{
      {Scalar, Double}, {FixedDim, Int16}, {VarDim, Int32}, {Bus, Binary}, {VarDimBus, Binary}};
  for (const auto& kind : ofEachCategory) {
    for (const std::size_t batchRows : {1U, 100U, 4096U}) {
      const std::size_t rows = batchRows == 1 ? 50 : batchRows == 100 ? 1234 : 9001;
      for (const std::size_t chunkRows :
           {std::size_t{1}, std::size_t{7}, std::size_t{4096}, rows}) {
        SCOPED_TRACE(::testing::PrintToString(std::make_tuple(kind, batchRows, chunkRows)));
        ASSERT_NO_FATAL_FAILURE(roundTrip(kind, rows, chunkRows, batchRows));
      }
    }
  }
}

}  // namespace
}  // namespace kyr::test
