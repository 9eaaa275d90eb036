#include "streaming/PartBuffer.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

// Rows and the elements in them, of samples that all have one shape or each their own.
void measureShapes(const std::vector<std::vector<std::uint64_t>>& dimensions, SampleChunk& chunk) {
  if (dimensions.size() == 1) {
    const std::size_t perRow = shapeElements(dimensions.front());
    chunk.rows = perRow == 0 ? 0 : chunk.elements / perRow;
    chunk.elements = chunk.rows * perRow;
    return;
  }
  chunk.rows = dimensions.size();
  chunk.elements = 0;
  for (const auto& extents : dimensions) {
    if (__builtin_add_overflow(chunk.elements, shapeElements(extents), &chunk.elements)) {
      throw std::invalid_argument("the samples' shapes need more elements than can be counted");
    }
  }
}

void measureSizes(const std::vector<int>& sizes, SampleChunk& chunk) {
  chunk.rows = sizes.size();
  chunk.elements = 0;
  for (const int size : sizes) {
    if (size < 0) throw std::invalid_argument(fmt::format("a sample of {} bytes", size));
    chunk.elements += static_cast<std::size_t>(size);
  }
}

// The ends of a run of rows as Arrow's 32-bit offsets, starting at 0.
std::shared_ptr<::arrow::Buffer> offsetsOf(const std::vector<std::uint64_t>& ends, std::size_t from,
                                           std::size_t count) {
  const std::uint64_t start = from == 0 ? 0 : ends[from - 1];
  if (ends[from + count - 1] - start > std::numeric_limits<std::int32_t>::max()) {
    throw std::runtime_error(fmt::format(
        "a batch of {} rows holds more elements than one row group can: set a smaller buffer size",
        count));
  }
  std::vector<std::int32_t> offsets;
  offsets.reserve(count + 1);
  offsets.push_back(0);
  for (std::size_t i = from; i < from + count; ++i) {
    offsets.push_back(static_cast<std::int32_t>(ends[i] - start));
  }
  return ::arrow::Buffer::FromVector(std::move(offsets));
}

// Drops the first values, which were \p batches batches. Memory for one more batch is kept, so that
// it need not grow anew; what is more than twice that is given back, and without batches all is.
template <typename T>
void dropFront(std::vector<T>& values, std::size_t count, std::size_t batches) {
  const auto rest = values.begin() + static_cast<std::ptrdiff_t>(count);
  const std::size_t perBatch = batches == 0 ? 0 : count / batches;
  if (values.capacity() / 2 <= perBatch) {
    values.erase(values.begin(), rest);
    return;
  }
  std::vector<T> fresh;
  fresh.reserve(std::max(perBatch, static_cast<std::size_t>(values.end() - rest)));
  fresh.assign(rest, values.end());
  values = std::move(fresh);
}

// Drops the ends of the first rows and counts the others from there; returns where they ended.
std::uint64_t dropEnds(std::vector<std::uint64_t>& ends, std::size_t rows, std::size_t batches) {
  const std::uint64_t base = ends[rows - 1];
  dropFront(ends, rows, batches);
  for (std::uint64_t& end : ends) end -= base;
  return base;
}

}  // namespace

PartBuffer::PartBuffer(SampleSchema schema, std::size_t width)
    : schema_(std::move(schema)), width_(schema_.kind == ColumnKind::blob ? 1 : width) {}

SampleChunk PartBuffer::measure(const SampleSchema& schema, const void* data, std::size_t size,
                                std::size_t width,
                                const std::vector<std::vector<std::uint64_t>>& dimensions,
                                const std::vector<int>& sizes) {
  SampleChunk chunk;
  chunk.data = static_cast<const char*>(data);
  chunk.dimensions = &dimensions;
  chunk.elements = size / width;
  const bool blobs = schema.kind == ColumnKind::blob;
  const std::size_t limit = blobs ? size : chunk.elements;
  if (schema.kind == ColumnKind::unsupported) {
    throw std::invalid_argument("samples of this data type and category cannot be appended");
  }
  if (schema.kind == ColumnKind::flat) {
    if (!dimensions.empty()) {
      throw std::invalid_argument("dimensions given for the samples of a scalar signal");
    }
    chunk.rows = chunk.elements;
  } else if (size == 0) {
    chunk.elements = 0;
  } else if (blobs && !sizes.empty()) {
    measureSizes(sizes, chunk);
  } else if (!dimensions.empty()) {
    measureShapes(dimensions, chunk);
  } else {
    throw std::invalid_argument(blobs ? "neither sizes nor dimensions given for binary samples"
                                      : "no dimensions given for the samples of a matrix signal");
  }
  if (chunk.elements > limit) {
    throw std::invalid_argument(fmt::format(
        "the samples' shapes need {} elements, but the data holds {}", chunk.elements, limit));
  }
  if (schema.dimensionIndex >= 0 && dimensions.size() != chunk.rows) {
    throw std::invalid_argument(fmt::format(
        "{} samples with {} dimension vectors, expected as many", chunk.rows, dimensions.size()));
  }
  if (blobs && !sizes.empty()) chunk.sizes = &sizes;
  return chunk;
}

void PartBuffer::append(const SampleChunk& chunk) {
  appendBytes(elements_, chunk.data, chunk.elements * width_);
  if (schema_.kind != ColumnKind::flat) {
    std::uint64_t end = rowEnds_.empty() ? 0 : rowEnds_.back();
    for (std::size_t row = 0; row < chunk.rows; ++row) {
      if (chunk.sizes) {
        end += static_cast<std::uint64_t>((*chunk.sizes)[row]);
      } else {
        const auto& shapes = *chunk.dimensions;
        end += shapeElements(shapes.size() == 1 ? shapes.front() : shapes[row]);
      }
      rowEnds_.push_back(end);
    }
  }
  if (schema_.dimensionIndex >= 0) {
    for (std::size_t row = 0; row < chunk.rows; ++row) {
      const auto& extents = (*chunk.dimensions)[row];
      extents_.insert(extents_.end(), extents.begin(), extents.end());
      extentEnds_.push_back(extents_.size());
    }
  }
  rows_ += chunk.rows;
}

std::shared_ptr<::arrow::Table> PartBuffer::table(std::size_t from, std::size_t count) const {
  SampleBuffers buffers;
  buffers.rows = static_cast<std::int64_t>(count);
  std::size_t start = from;
  std::size_t end = from + count;
  if (schema_.kind != ColumnKind::flat) {
    start = from == 0 ? 0 : rowEnds_[from - 1];
    end = rowEnds_[from + count - 1];
    buffers.offsets = offsetsOf(rowEnds_, from, count);
  }
  buffers.elements = borrowBuffer(elements_.data() + start * width_, (end - start) * width_);
  if (schema_.dimensionIndex >= 0) {
    const std::size_t first = from == 0 ? 0 : extentEnds_[from - 1];
    const std::size_t last = extentEnds_[from + count - 1];
    buffers.dimensionRows = buffers.rows;
    buffers.dimensionOffsets = offsetsOf(extentEnds_, from, count);
    buffers.dimensionValues =
        borrowBuffer(extents_.data() + first, (last - first) * sizeof(std::uint64_t));
  }
  return assembleTable(schema_, buffers);
}

void PartBuffer::drop(std::size_t rows, std::size_t batches) {
  const std::size_t elements =
      schema_.kind == ColumnKind::flat ? rows : dropEnds(rowEnds_, rows, batches);
  dropFront(elements_, elements * width_, batches);
  if (schema_.dimensionIndex >= 0) {
    dropFront(extents_, dropEnds(extentEnds_, rows, batches), batches);
  }
  rows_ -= rows;
}

void PartBuffer::takeBatches(std::size_t batchRows,
                             const std::function<void(const ::arrow::Table&)>& write) {
  std::size_t taken = 0;
  for (; rows_ - taken >= batchRows; taken += batchRows) write(*table(taken, batchRows));
  if (taken > 0) drop(taken, taken / batchRows);
}

void PartBuffer::takeAll(const std::function<void(const ::arrow::Table&)>& write) {
  if (rows_ == 0) return;
  write(*table(0, rows_));
  drop(rows_, 0);
}

}  // namespace kyr::parquet
