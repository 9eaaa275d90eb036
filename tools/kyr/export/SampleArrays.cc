#include "export/SampleArrays.h"

#include <arrow/api.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "print/SampleCursor.h"

namespace kyr::tool {

using recording::SampleBlock;
using recording::SignalInfo;

namespace {

using BufferPtr = std::shared_ptr<::arrow::Buffer>;

// Readers of Parquet call the elements so, whatever the name in the schema.
std::shared_ptr<::arrow::DataType> listOf(const std::shared_ptr<::arrow::DataType>& element) {
  return ::arrow::list(::arrow::field("element", element));
}

// Truth values are stored as int8.
std::shared_ptr<::arrow::DataType> typeOf(const SignalInfo& signal, bool isText) {
  const auto stored = parquet::schemaBuilder::getSchema(signal.category, signal.dataType,
                                                        /*includeTime=*/false, "")
                          ->field(0)
                          ->type();
  if (isText) return ::arrow::utf8();
  const bool isTruth = signal.dataType == Boolean && stored->id() != ::arrow::Type::BINARY;
  if (stored->id() != ::arrow::Type::LIST) return isTruth ? ::arrow::boolean() : stored;
  return listOf(isTruth ? ::arrow::boolean() : stored->field(0)->type());
}

bool isList(const ::arrow::DataType& type) { return type.id() == ::arrow::Type::LIST; }
bool isBinary(const ::arrow::DataType& type) {
  return type.id() == ::arrow::Type::BINARY || type.id() == ::arrow::Type::STRING;
}

std::size_t widthOf(const ::arrow::DataType& element) {
  if (element.id() == ::arrow::Type::BOOL || isBinary(element)) return 1;
  return static_cast<std::size_t>(element.byte_width());
}

std::int32_t endOf(std::int64_t elements) {
  if (elements <= std::numeric_limits<std::int32_t>::max()) {
    return static_cast<std::int32_t>(elements);
  }
  throw std::runtime_error("a table cannot hold samples of more than 2^31 elements");
}

}  // namespace

SampleArrays::SampleArrays(const SignalInfo& signal, bool isText)
    : type_(typeOf(signal, isText)),
      elementType_(isList(*type_) ? type_->field(0)->type() : type_),
      isFlat_(!isList(*type_) && !isBinary(*type_)),
      width_(widthOf(*elementType_)),
      hasShapes_(signal.category == VarDim || signal.category == VarDimBus) {
  start();
}

// The ends of lists begin with that of none.
void SampleArrays::start() {
  rows_ = 0;
  elements_ = 0;
  extents_ = 0;
  check(ends_.Append(0));
  check(shapeEnds_.Append(0));
}

std::shared_ptr<::arrow::DataType> SampleArrays::shapeType() { return listOf(::arrow::uint64()); }

void SampleArrays::reserve(std::size_t rows) {
  check(isValid_.Reserve(static_cast<std::int64_t>(rows)));
  if (isFlat_) check(bytes_.Reserve(static_cast<std::int64_t>(rows * width_)));
}

void SampleArrays::append(const SampleBlock& block, std::size_t first, std::size_t count) {
  const auto samples = static_cast<std::int64_t>(count);
  if (isFlat_) {
    bytes_.UnsafeAppend(static_cast<const char*>(block.elements) + first * width_,
                        samples * static_cast<std::int64_t>(width_));
    elements_ += samples;
  } else {
    for (std::size_t i = first; i < first + count; ++i) appendSample(block, i);
  }
  isValid_.UnsafeAppend(samples, true);
  rows_ += samples;
}

void SampleArrays::appendSample(const SampleBlock& block, std::size_t sample) {
  const auto [begin, end] = elementsOf(block, sample);
  check(bytes_.Append(static_cast<const char*>(block.elements) + begin * width_,
                      static_cast<std::int64_t>((end - begin) * width_)));
  elements_ += static_cast<std::int64_t>(end - begin);
  check(ends_.Append(endOf(elements_)));
  if (!hasShapes_) return;
  if (block.extents) {
    const std::uint64_t from = block.extentOffsets[sample];
    const auto extents = static_cast<std::int64_t>(block.extentOffsets[sample + 1] - from);
    check(shapes_.Append(block.extents + from, extents));
    extents_ += extents;
  }
  check(shapeEnds_.Append(endOf(extents_)));
}

void SampleArrays::appendNull() {
  if (isFlat_) {
    bytes_.UnsafeAppend(static_cast<std::int64_t>(width_), 0);
    ++elements_;
  } else {
    if (ends_.length() == 0) check(ends_.Append(0));
    check(ends_.Append(endOf(elements_)));
    if (hasShapes_) {
      check(shapeEnds_.Append(endOf(extents_)));
    }
  }
  isValid_.UnsafeAppend(false);
  ++rows_;
}

SampleArrays::ArrayPtr SampleArrays::finishElements() {
  BufferPtr bytes = check(bytes_.Finish());
  if (elementType_->id() == ::arrow::Type::BOOL) {
    ::arrow::TypedBufferBuilder<bool> bits;
    check(bits.Append(bytes->data(), elements_));
    bytes = check(bits.Finish());
  }
  return ::arrow::MakeArray(
      ::arrow::ArrayData::Make(elementType_, elements_, {nullptr, std::move(bytes)}, 0));
}

std::vector<SampleArrays::ArrayPtr> SampleArrays::finish() {
  const std::int64_t nulls = isValid_.false_count();
  BufferPtr isValid = check(isValid_.Finish());
  if (nulls == 0) isValid = nullptr;
  const BufferPtr ends = check(ends_.Finish());
  const BufferPtr shapeEnds = check(shapeEnds_.Finish());
  std::shared_ptr<::arrow::ArrayData> samples;
  if (isFlat_) {
    samples = finishElements()->data();
    samples->buffers[0] = isValid;
    samples->null_count = nulls;
  } else if (isBinary(*type_)) {
    samples =
        ::arrow::ArrayData::Make(type_, rows_, {isValid, ends, check(bytes_.Finish())}, nulls);
  } else {
    samples =
        ::arrow::ArrayData::Make(type_, rows_, {isValid, ends}, {finishElements()->data()}, nulls);
  }
  std::vector<ArrayPtr> arrays{::arrow::MakeArray(samples)};
  if (hasShapes_) {
    const auto extents = ::arrow::ArrayData::Make(::arrow::uint64(), extents_,
                                                  {nullptr, check(shapes_.Finish())}, 0);
    arrays.push_back(::arrow::MakeArray(
        ::arrow::ArrayData::Make(shapeType(), rows_, {isValid, shapeEnds}, {extents}, nulls)));
  }
  start();
  return arrays;
}

}  // namespace kyr::tool
