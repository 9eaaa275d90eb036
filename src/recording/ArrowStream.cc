#include "recording/ArrowStream.h"

#include <arrow/api.h>
#include <arrow/util/bit_util.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace kyr::recording {

namespace {

using BufferPtr = std::shared_ptr<::arrow::Buffer>;
using ArrayPtr = std::shared_ptr<::arrow::Array>;

std::shared_ptr<::arrow::DataType> elementType(const SignalRows& rows) {
  return rows.signal().dataType == Boolean ? ::arrow::boolean() : rows.schema().elementType;
}

std::shared_ptr<::arrow::DataType> valueType(SignalRows& rows) {
  auto element = elementType(rows);
  switch (rows.kind()) {
    case SampleKind::number:
      return element;
    case SampleKind::fixed:
      return ::arrow::fixed_size_list(element, static_cast<std::int32_t>(rows.elementsPerSample()));
    case SampleKind::variable:
      return ::arrow::list(element);
    default:
      return ::arrow::binary();
  }
}

std::shared_ptr<::arrow::Schema> schemaOf(SignalRows& rows) {
  ::arrow::FieldVector fields;
  if (rows.hasTimes()) fields.push_back(::arrow::field("time", ::arrow::float64()));
  if (rows.hasSamples() || !rows.hasTimes()) {
    fields.push_back(::arrow::field("value", valueType(rows)));
    if (rows.kind() == SampleKind::variable) {
      fields.push_back(::arrow::field("shape", ::arrow::list(::arrow::uint64())));
    }
  }
  const SignalInfo& signal = rows.signal();
  return ::arrow::schema(
      std::move(fields),
      ::arrow::key_value_metadata(
          {{"name", signal.name}, {"unit", signal.unit}, {"description", signal.description}}));
}

::arrow::Result<BufferPtr> copyOf(const void* bytes, std::size_t size) {
  ARROW_ASSIGN_OR_RAISE(auto buffer, ::arrow::AllocateBuffer(static_cast<std::int64_t>(size)));
  if (size > 0) std::memcpy(buffer->mutable_data(), bytes, size);
  return BufferPtr(std::move(buffer));
}

// Elements as an array; truth values become bits.
::arrow::Result<ArrayPtr> elementsArray(const SignalRows& rows, BufferPtr bytes,
                                        std::int64_t count) {
  if (rows.signal().dataType == Boolean) {
    ARROW_ASSIGN_OR_RAISE(auto bits, ::arrow::AllocateEmptyBitmap(count));
    const std::uint8_t* const values = bytes->data();
    for (std::int64_t i = 0; i < count; ++i) {
      if (values[i] != 0) ::arrow::bit_util::SetBit(bits->mutable_data(), i);
    }
    bytes = std::move(bits);
  }
  return ::arrow::MakeArray(
      ::arrow::ArrayData::Make(elementType(rows), count, {nullptr, std::move(bytes)}, 0));
}

::arrow::Result<BufferPtr> offsetsOf(const std::uint64_t* ends, std::uint64_t begin,
                                     std::size_t count) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::int32_t>::max();
  if (count > 0 && ends[count - 1] - begin > kMost) {
    return ::arrow::Status::CapacityError("a record batch with more than ", kMost,
                                          " elements: ask for fewer rows at once");
  }
  ARROW_ASSIGN_OR_RAISE(
      auto buffer,
      ::arrow::AllocateBuffer(static_cast<std::int64_t>((count + 1) * sizeof(std::int32_t))));
  auto* const offsets = reinterpret_cast<std::int32_t*>(buffer->mutable_data());
  offsets[0] = 0;
  for (std::size_t i = 0; i < count; ++i) {
    offsets[i + 1] = static_cast<std::int32_t>(ends[i] - begin);
  }
  return BufferPtr(std::move(buffer));
}

class SignalStream final : public ::arrow::RecordBatchReader {
 public:
  SignalStream(SignalRows rows, const RowRange& range, std::size_t maxRows)
      : rows_(std::move(rows)),
        next_(range.from),
        end_(range.to),
        maxRows_(std::max<std::size_t>(1, maxRows)),
        schema_(schemaOf(rows_)) {}

  std::shared_ptr<::arrow::Schema> schema() const override { return schema_; }

  ::arrow::Status ReadNext(std::shared_ptr<::arrow::RecordBatch>* batch) override {
    batch->reset();
    if (next_ >= end_) return ::arrow::Status::OK();
    try {
      return read().Value(batch);
    } catch (const std::bad_alloc&) {
      return ::arrow::Status::OutOfMemory("a record batch");
    } catch (const std::exception& error) {
      return ::arrow::Status::IOError(error.what());
    }
  }

 private:
  ::arrow::Result<std::shared_ptr<::arrow::RecordBatch>> read() {
    const bool isCut = rows_.hasSamples() &&
                       (rows_.kind() == SampleKind::variable || rows_.kind() == SampleKind::blob);
    std::uint64_t count = std::min<std::uint64_t>(end_ - next_, maxRows_);
    if (isCut) count = std::min(count, rows_.endOfPart(next_) - next_);
    ::arrow::ArrayVector columns;
    if (rows_.hasTimes()) {
      ARROW_ASSIGN_OR_RAISE(columns.emplace_back(), times(count));
    }
    if (rows_.hasSamples()) ARROW_RETURN_NOT_OK(addSamples(count, columns));
    next_ += count;
    return ::arrow::RecordBatch::Make(schema_, static_cast<std::int64_t>(count),
                                      std::move(columns));
  }

  ::arrow::Result<ArrayPtr> times(std::uint64_t count) {
    ARROW_ASSIGN_OR_RAISE(
        auto buffer, ::arrow::AllocateBuffer(static_cast<std::int64_t>(count * sizeof(double))));
    rows_.readTimes(next_, count, reinterpret_cast<double*>(buffer->mutable_data()));
    return std::make_shared<::arrow::DoubleArray>(static_cast<std::int64_t>(count),
                                                  BufferPtr(std::move(buffer)));
  }

  ::arrow::Status addSamples(std::uint64_t count, ::arrow::ArrayVector& columns) {
    if (rows_.kind() == SampleKind::number || rows_.kind() == SampleKind::fixed) {
      return fixedSamples(count).Value(&columns.emplace_back());
    }
    const parquet::HeldRows held = rows_.readSamples(next_, count);
    const parquet::RowSlice& slice = held.rows;
    const auto rows = static_cast<std::int64_t>(count);
    ARROW_ASSIGN_OR_RAISE(auto offsets, offsetsOf(slice.ends, slice.begin, slice.rows));
    ARROW_ASSIGN_OR_RAISE(auto bytes, copyOf(slice.elements, slice.bytes));
    if (rows_.kind() == SampleKind::blob) {
      columns.push_back(std::make_shared<::arrow::BinaryArray>(rows, offsets, bytes));
      return ::arrow::Status::OK();
    }
    const auto elements = static_cast<std::int64_t>(slice.bytes / rows_.elementBytes());
    ARROW_ASSIGN_OR_RAISE(auto values, elementsArray(rows_, std::move(bytes), elements));
    columns.push_back(
        std::make_shared<::arrow::ListArray>(valueType(rows_), rows, offsets, values));
    ARROW_ASSIGN_OR_RAISE(columns.emplace_back(), shapes(slice));
    return ::arrow::Status::OK();
  }

  ::arrow::Result<ArrayPtr> fixedSamples(std::uint64_t count) {
    const std::uint64_t perSample = rows_.elementsPerSample();
    const auto elements = static_cast<std::int64_t>(count * perSample);
    ARROW_ASSIGN_OR_RAISE(
        auto bytes,
        ::arrow::AllocateBuffer(elements * static_cast<std::int64_t>(rows_.elementBytes())));
    rows_.readElements(next_, count, reinterpret_cast<char*>(bytes->mutable_data()));
    ARROW_ASSIGN_OR_RAISE(auto values, elementsArray(rows_, std::move(bytes), elements));
    if (rows_.kind() == SampleKind::number) return values;
    return std::make_shared<::arrow::FixedSizeListArray>(
        valueType(rows_), static_cast<std::int64_t>(count), std::move(values));
  }

  static ::arrow::Result<ArrayPtr> shapes(const parquet::RowSlice& slice) {
    ARROW_ASSIGN_OR_RAISE(auto offsets, offsetsOf(slice.extentEnds, slice.extentBegin, slice.rows));
    const std::uint64_t extents =
        slice.rows == 0 ? 0 : slice.extentEnds[slice.rows - 1] - slice.extentBegin;
    ARROW_ASSIGN_OR_RAISE(auto bytes, copyOf(slice.extents, extents * sizeof(std::uint64_t)));
    const auto values = std::make_shared<::arrow::UInt64Array>(static_cast<std::int64_t>(extents),
                                                               std::move(bytes));
    return std::make_shared<::arrow::ListArray>(
        ::arrow::list(::arrow::uint64()), static_cast<std::int64_t>(slice.rows), offsets, values);
  }

  SignalRows rows_;
  std::uint64_t next_;
  std::uint64_t end_;
  std::size_t maxRows_;
  std::shared_ptr<::arrow::Schema> schema_;
};

}  // namespace

std::shared_ptr<::arrow::RecordBatchReader> arrowStream(SignalRows rows, const RowRange& range,
                                                        std::size_t maxRows) {
  return std::make_shared<SignalStream>(std::move(rows), range, maxRows);
}

}  // namespace kyr::recording
