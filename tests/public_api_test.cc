// Uses the library as any other program does: the shared library and the public headers alone.
#include <arrow/status.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "every_public_header.h"
#include "support/TempDir.h"

#if defined(FMT_VERSION) || defined(NLOHMANN_JSON_VERSION_MAJOR) || defined(CLI11_VERSION)
#error "a public header shows a library that is ours alone"
#endif

namespace kyr::parquet {
namespace {

TEST(PublicApi, PoolStoresASignalAndRebuildsItFromItsRecords) {
  const test::TempDir temp;
  SignalPool pool;
  const auto signal = pool.getSignal(1);
  signal->setCategory(FixedDim);
  signal->setDataType(UInt8);
  signal->setData({0.5, 1}, {1, 2, 3, 4}, {{2}}, {});
  EXPECT_TRUE(signal->writeStatus().ok());

  SignalPool reopened(pool.getParquetDirectory());
  reopened.deserializeSignalRecords(pool.serializeSignalRecords());
  const auto copy = reopened.getSignal(1);
  copy->setDataType(UInt8);
  std::vector<double> time;
  std::vector<char> data;
  std::vector<std::vector<std::size_t>> dims;
  std::vector<int> lengths;
  copy->getData(time, data, dims, lengths);
  EXPECT_EQ(time, (std::vector<double>{0.5, 1}));
  EXPECT_EQ(data, (std::vector<char>{1, 2, 3, 4}));
  EXPECT_EQ(lengths, (std::vector<int>{2, 2}));
  // Foreign exceptions keep their type over the library's boundary.
  EXPECT_THROW(reopened.deserializeSignalRecords("["), std::exception);
}

// Every instance of the typed members must be there to link with.
template <typename T>
void useEveryForm(KYRSignalDataType type) {
  SCOPED_TRACE(type);
  const test::TempDir temp;
  ParquetSerializerWorker worker(temp.path());
  const auto plain = schemaBuilder::getSchema(Scalar, type, false, columnNames::data);
  const auto timed = schemaBuilder::getSchema(Scalar, type, true, columnNames::data);
  const std::vector<double> time{0.5};
  const std::vector<T> value{std::numeric_limits<T>::max()};
  std::vector<char> bytes(1 + sizeof(T));
  std::memcpy(&bytes[1], value.data(), sizeof(T));
  const void* unaligned = &bytes[1];
  const auto* pointer = static_cast<const T*>(unaligned);
  bool known = true;
  worker.getStorageIdForContent<T>(value, {{7}}, known);
  EXPECT_FALSE(known);
  const int ids[] = {worker.writeBinaryArray<T>(plain, value, {}, {}, {}),
                     worker.writeBinaryArray<T>(plain, pointer, 1, {}, {}, {}),
                     worker.writeBinaryArray<T>(timed, time, value, {}, {}, {}),
                     worker.writeBinaryArray<T>(timed, time, pointer, 1, {}, {}, {})};
  EXPECT_EQ(ids[0], ids[1]);

  std::vector<double> readTime;
  std::vector<T> read;
  std::vector<int> offsets;
  std::vector<std::vector<std::size_t>> dims;
  for (const int id : ids) {
    worker.readBinaryArray<T>(id, readTime, read, offsets, dims);
    EXPECT_EQ(readTime, id > ids[0] ? time : std::vector<double>{});
    EXPECT_EQ(read, value);
    worker.readBytes<T>(id, readTime, bytes, offsets, dims);
    EXPECT_EQ(bytes.size(), sizeof(T));
  }
  worker.readBinaryArray<T>(ids[0], read, offsets, dims);
  worker.readBytes<T>(ids[0], bytes, offsets, dims);
  EXPECT_EQ(read, value);
}

TEST(PublicApi, TypedColumnsExistForEveryElementType) {
  useEveryForm<double>(Double);
  useEveryForm<float>(Single);
  useEveryForm<char>(Int8);
  useEveryForm<unsigned char>(UInt8);
  useEveryForm<short>(Int16);
  useEveryForm<unsigned short>(UInt16);
  useEveryForm<int>(Int32);
  useEveryForm<unsigned int>(UInt32);
  useEveryForm<long long>(Int64);
  useEveryForm<unsigned long long>(UInt64);
}

}  // namespace
}  // namespace kyr::parquet
