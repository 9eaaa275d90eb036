// Saves a recording of what `kyr import` cannot make, for the tests of the tool:
// OddRecording FOLDER
// Beside it FOLDER.apart, whose signals have their times beside their samples, FOLDER.hollow, a
// signal whose samples have no elements, and FOLDER.sparse, whose signals lack times or samples.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/Recording.h"

namespace {

using Shapes = std::vector<std::vector<std::size_t>>;

class Writer {
 public:
  explicit Writer(const kyr::Path& directory) : pool_(directory) {}

  template <typename T>
  void add(const std::string& name, kyr::KYRSignalDataType type, kyr::KYRSignalCategory category,
           const std::vector<double>& time, const std::vector<T>& values, const Shapes& shapes = {},
           const std::vector<int>& lengths = {}) {
    std::vector<char> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    const int id = static_cast<int>(descriptions_.size()) + 10;
    const auto signal = pool_.getSignal(id);
    signal->setDataType(type);
    signal->setCategory(category);
    signal->setData(time, bytes, shapes, lengths);
    kyr::recording::SignalDescription description;
    description.signalId = id;
    description.name = name;
    if (category == kyr::FixedDim) description.dimensions = shapes.front();
    descriptions_.push_back(description);
  }

  void save(const kyr::Path& folder) {
    kyr::recording::saveRecording(pool_, descriptions_, folder);
  }

 private:
  kyr::parquet::SignalPool pool_;
  std::vector<kyr::recording::SignalDescription> descriptions_;
};

void recordSparse(const kyr::Path& working, const kyr::Path& folder) {
  Writer writer(working);
  writer.add<double>("times alone", kyr::Double, kyr::Scalar, {0, 0.5}, {});
  writer.add<float>("samples alone", kyr::Single, kyr::FixedDim, {}, {1, 2, 3, 4}, {{2}});
  writer.add<double>("more samples", kyr::Double, kyr::Scalar, {0, 0.5}, {1, 2, 3});
  writer.add<std::uint64_t>("more times", kyr::UInt64, kyr::Scalar, {0, 1, 2}, {~0ULL, 2});
  writer.save(folder);
}

void recordHollow(const kyr::Path& folder) {
  kyr::recording::LiveRecording live(folder);
  kyr::recording::SignalDescription description;
  description.name = "hollow";
  const auto signal = live.addSignal(description, kyr::Double, kyr::VarDim);
  const std::vector<double> times{0, 1};
  signal->appendTime(times.data(), times.size());
  signal->appendData("", 0, {{std::size_t{1} << 40U, 0}, {3, 0}}, {0, 0});
  live.finish();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const kyr::Path folder = kyr::Path::fromNarrow(argv[1]);
  const kyr::Path working = kyr::Path::fromNarrow(std::string(argv[1]) + ".working");
  const std::vector<double> time{0, 1};
  {
    Writer writer(working);
    writer.add<double>("matrix", kyr::Double, kyr::FixedDim, time,
                       {1, 2, 3, 4, 5, 6, 0.1, -0.0, 1e300, NAN, INFINITY, 7}, {{2, 3}});
    writer.add<std::int16_t>("growing", kyr::Int16, kyr::VarDim, time, {1, 2, 3, 4, 5, 6},
                             {{1, 2}, {2, 2}});
    writer.add<std::int8_t>("flags", kyr::Boolean, kyr::FixedDim, time, {1, 0, 0, 1}, {{2}});
    writer.add<char>("blob", kyr::Binary, kyr::Bus, time, {'h', 'i', '\0', '\xff', 'x'}, {},
                     {2, 3});
    writer.add<double>("falling", kyr::Double, kyr::Scalar, {2, 1, NAN, 1}, {1, 2, 3, 4});
    writer.add<float>("count", kyr::Single, kyr::Scalar, {}, {0.1F, 16777216.0F, 3});
    writer.add<std::int8_t>("count too", kyr::Int8, kyr::Scalar, {}, {-1, 2});
    writer.add<double>("twin", kyr::Double, kyr::Scalar, time, {1, 2});
    writer.add<double>("twin", kyr::Double, kyr::Scalar, time, {3, 4});
    writer.add<double>("uneven", kyr::Double, kyr::Scalar, {0, 1, 2}, {1, 2});
    writer.add<double>("7 [m]", kyr::Double, kyr::Scalar, time, {5, 6});
    writer.add<double>("late", kyr::Double, kyr::Scalar, {5, 6}, {1, 2});
    writer.save(folder);
  }
  recordSparse(working, kyr::Path::fromNarrow(std::string(argv[1]) + ".sparse"));
  kyr::parquet::serialization_options::bSharedTimeColumn = false;
  {
    Writer writer(working);
    writer.add<double>("a", kyr::Double, kyr::Scalar, {0, 0.5, 2}, {1, 2, 3});
    writer.add<std::int32_t>("b", kyr::Int32, kyr::Scalar, {0, 0.5, 2}, {4, 5, 6});
    writer.add<double>("late", kyr::Double, kyr::Scalar, {0.5, 3}, {7, 8});
    writer.save(kyr::Path::fromNarrow(std::string(argv[1]) + ".apart"));
  }
  std::filesystem::remove_all(working.toFilesystem());
  recordHollow(kyr::Path::fromNarrow(std::string(argv[1]) + ".hollow"));
  return 0;
}
