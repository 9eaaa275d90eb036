#include "schema/RowStore.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "platform/FreshMemory.h"
#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

// Counts rows and elements of samples that have one shape in common or one each.
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

// The ends of a run of rows as Arrow's 32-bit offsets, which start at 0.
std::shared_ptr<::arrow::Buffer> offsetsOf(const std::uint64_t* ends, std::uint64_t begin,
                                           std::size_t count) {
  if (count > 0 && ends[count - 1] - begin > std::numeric_limits<std::int32_t>::max()) {
    throw std::runtime_error(fmt::format(
        "a batch of {} rows holds more elements than one row group can: set a smaller buffer size",
        count));
  }
  std::vector<std::int32_t> offsets;
  offsets.reserve(count + 1);
  offsets.push_back(0);
  for (std::size_t i = 0; i < count; ++i) {
    offsets.push_back(static_cast<std::int32_t>(ends[i] - begin));
  }
  return ::arrow::Buffer::FromVector(std::move(offsets));
}

// Removes the first values, which were \p batches batches. Memory for one more batch is kept, so
// that it need not grow again; memory of more than twice that is given back. Without batches, all
// memory that is not needed is given back.
template <typename T>
void dropValues(std::vector<T>& values, std::size_t count, std::size_t batches) {
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

// Removes the ends of the first rows and counts the other ends from there. Returns the last end
// that was removed.
std::uint64_t dropEnds(std::vector<std::uint64_t>& ends, std::size_t rows, std::size_t batches) {
  const std::uint64_t base = ends[rows - 1];
  dropValues(ends, rows, batches);
  for (std::uint64_t& end : ends) end -= base;
  return base;
}

void requireNoNulls(const ::arrow::Array& values) {
  if (values.null_count() > 0) throw std::invalid_argument("a column holds nulls");
}

// The chunks of a column that have rows.
::arrow::ArrayVector chunksOf(const ::arrow::Table& table, const std::string& column) {
  const auto chunks = table.GetColumnByName(column);
  if (!chunks) throw std::invalid_argument(fmt::format("there is no column \"{}\"", column));
  ::arrow::ArrayVector result;
  for (const auto& chunk : chunks->chunks()) {
    if (chunk->length() == 0) continue;
    requireNoNulls(*chunk);
    result.push_back(chunk);
  }
  return result;
}

// Lists of one type differ in the names of their items.
void requireType(const ::arrow::Array& array, const ::arrow::DataType& type) {
  const ::arrow::DataType& found = *array.type();
  const bool areLists = found.id() == ::arrow::Type::LIST && type.id() == ::arrow::Type::LIST;
  if (areLists ? found.field(0)->type()->Equals(type.field(0)->type()) : found.Equals(type)) return;
  throw std::invalid_argument(
      fmt::format("a column is {}, expected {}", found.ToString(), type.ToString()));
}

// Adds where the lists or blobs end, counted on from the last end.
template <typename ListLike>
void appendEnds(const ListLike& array, std::vector<std::uint64_t>& ends) {
  std::uint64_t end = ends.empty() ? 0 : ends.back();
  for (std::int64_t i = 0; i < array.length(); ++i) {
    ends.push_back(end += static_cast<std::uint64_t>(array.value_length(i)));
  }
}

// Adds the shapes that a chunk of a column "dimension" lists.
void appendShapes(const ::arrow::Array& chunk, RowShapes& shapes) {
  requireType(chunk, *::arrow::list(::arrow::uint64()));
  const auto& lists = static_cast<const ::arrow::ListArray&>(chunk);
  const auto values = spannedValues(lists);
  requireNoNulls(*values);
  const auto* const first = reinterpret_cast<const std::uint64_t*>(firstValue(*values));
  shapes.extents.insert(shapes.extents.end(), first, first + values->length());
  appendEnds(lists, shapes.extentEnds);
}

}  // namespace

void requireSamples(const SampleSchema& schema, const ::arrow::Table& table, std::uint64_t first) {
  if (!makesSamples(schema)) {
    throw std::invalid_argument("its columns make no samples: " + schema.schema->ToString());
  }
  RowShapes shapes;
  for (const int index : {schema.dataIndex, schema.dimensionIndex}) {
    if (index < 0) continue;
    const ::arrow::Field& field = *schema.schema->field(index);
    std::int64_t rows = 0;
    for (const auto& chunk : chunksOf(table, field.name())) {
      requireType(*chunk, *field.type());
      rows += chunk->length();
      if (index == schema.dimensionIndex) {
        appendShapes(*chunk, shapes);
      } else if (chunk->type_id() == ::arrow::Type::LIST) {
        const auto& lists = static_cast<const ::arrow::ListArray&>(*chunk);
        requireNoNulls(*spannedValues(lists));
        if (schema.dimensionIndex >= 0) appendEnds(lists, shapes.rowEnds);
      }
    }
    if (rows != table.num_rows()) {
      throw std::invalid_argument(
          fmt::format("a column has {} values for {} rows", rows, table.num_rows()));
    }
  }
  RowSlice slice;
  slice.rows = shapes.rowEnds.size();
  slice.ends = shapes.rowEnds.data();
  slice.extents = shapes.extents.data();
  slice.extentEnds = shapes.extentEnds.data();
  if (schema.kind == ColumnKind::list && schema.dimensionIndex >= 0) requireShapes(slice, first);
}

RowStore::RowStore(SampleSchema schema, std::size_t width)
    : schema_(std::move(schema)), width_(schema_.kind == ColumnKind::blob ? 1 : width) {}

SampleChunk measureChunk(const SampleSchema& schema, const void* data, std::size_t size,
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

SampleChunk measureExactly(const SampleSchema& schema, const void* data, std::size_t size,
                           std::size_t width,
                           const std::vector<std::vector<std::uint64_t>>& dimensions,
                           const std::vector<int>& sizes) {
  const bool blobs = schema.kind == ColumnKind::blob;
  SampleChunk chunk;
  const bool isOneShape = schema.dimensionIndex >= 0 && dimensions.size() == 1;
  if (isOneShape && !(blobs && !sizes.empty()) && shapeElements(dimensions.front()) == 0) {
    chunk.rows = 1;
  } else if (size == 0 && (blobs ? !sizes.empty() : dimensions.size() > 1)) {
    if (blobs) {
      measureSizes(sizes, chunk);
    } else {
      measureShapes(dimensions, chunk);
    }
    if (chunk.elements > 0) return measureChunk(schema, data, 1, 1, dimensions, sizes);  // throws
    if (schema.dimensionIndex >= 0 && dimensions.size() != chunk.rows) {
      throw std::invalid_argument(fmt::format(
          "{} samples with {} dimension vectors, expected as many", chunk.rows, dimensions.size()));
    }
  } else {
    chunk = measureChunk(schema, data, size, width, dimensions, sizes);
  }
  chunk.data = static_cast<const char*>(data);
  chunk.dimensions = &dimensions;
  if (blobs && !sizes.empty()) chunk.sizes = &sizes;
  const std::size_t used = chunk.elements * (blobs ? 1 : width);
  if (used != size) {
    throw std::invalid_argument(
        fmt::format("{} bytes of samples, of which whole ones take {}", size, used));
  }
  return chunk;
}

void RowShapes::append(const SampleSchema& schema, const SampleChunk& chunk) {
  if (schema.kind != ColumnKind::flat) {
    std::uint64_t end = rowEnds.empty() ? 0 : rowEnds.back();
    const bool areAlike = !chunk.sizes && chunk.dimensions->size() == 1;
    const std::uint64_t each = areAlike ? shapeElements(chunk.dimensions->front()) : 0;
    const std::size_t had = rowEnds.size();
    platform::reserveMore(rowEnds, had + chunk.rows);
    rowEnds.resize(had + chunk.rows);
    for (std::size_t row = 0; row < chunk.rows; ++row) {
      if (areAlike) {
        end += each;
      } else if (chunk.sizes) {
        end += static_cast<std::uint64_t>((*chunk.sizes)[row]);
      } else {
        end += shapeElements((*chunk.dimensions)[row]);
      }
      rowEnds[had + row] = end;
    }
  }
  if (schema.dimensionIndex >= 0) {
    for (std::size_t row = 0; row < chunk.rows; ++row) {
      const auto& sizes = (*chunk.dimensions)[row];
      extents.insert(extents.end(), sizes.begin(), sizes.end());
      extentEnds.push_back(extents.size());
    }
  }
}

RowSlice sliceOf(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width,
                 RowShapes& shapes) {
  RowSlice slice;
  slice.rows = chunk.rows;
  slice.elements = chunk.data;
  slice.bytes = chunk.elements * (schema.kind == ColumnKind::blob ? 1 : width);
  if (schema.kind == ColumnKind::flat) return slice;
  shapes = RowShapes();
  shapes.append(schema, chunk);
  slice.ends = shapes.rowEnds.data();
  if (schema.dimensionIndex >= 0) {
    slice.extents = shapes.extents.data();
    slice.extentEnds = shapes.extentEnds.data();
  }
  return slice;
}

std::shared_ptr<::arrow::Table> tableOf(const SampleSchema& schema, const RowSlice& rows) {
  SampleBuffers buffers;
  buffers.rows = static_cast<std::int64_t>(rows.rows);
  if (rows.ends) buffers.offsets = offsetsOf(rows.ends, rows.begin, rows.rows);
  buffers.elements = borrowBuffer(rows.elements, rows.bytes);
  if (rows.extentEnds) {
    buffers.dimensionRows = buffers.rows;
    buffers.dimensionOffsets = offsetsOf(rows.extentEnds, rows.extentBegin, rows.rows);
    buffers.dimensionValues = borrowBuffer(rows.extents, extentsIn(rows) * sizeof(std::uint64_t));
  }
  return assembleTable(schema, buffers);
}

void RowStore::append(const SampleChunk& chunk) {
  elements_.append(chunk.data, chunk.elements * width_);
  if (schema_.kind != ColumnKind::flat) shapes_.append(schema_, chunk);
  rows_ += chunk.rows;
}

void RowStore::dropFront(std::size_t rows, std::size_t batches) {
  if (rows == 0) return;
  const std::size_t elements =
      schema_.kind == ColumnKind::flat ? rows : dropEnds(shapes_.rowEnds, rows, batches);
  elements_.dropFront(elements * width_, batches == 0 ? 0 : elements * width_ / batches);
  if (schema_.dimensionIndex >= 0) {
    dropValues(shapes_.extents, dropEnds(shapes_.extentEnds, rows, batches), batches);
  }
  rows_ -= rows;
}

RowSlice RowStore::slice(std::size_t from, std::size_t count) const {
  RowSlice slice;
  slice.rows = count;
  std::size_t start = from;
  std::size_t end = from + count;
  if (schema_.kind != ColumnKind::flat) {
    slice.ends = shapes_.rowEnds.data() + from;
    slice.begin = from == 0 ? 0 : shapes_.rowEnds[from - 1];
    start = slice.begin;
    end = count == 0 ? start : shapes_.rowEnds[from + count - 1];
  }
  slice.elements = elements_.data() + start * width_;
  slice.bytes = (end - start) * width_;
  if (schema_.dimensionIndex >= 0) {
    slice.extentEnds = shapes_.extentEnds.data() + from;
    slice.extentBegin = from == 0 ? 0 : shapes_.extentEnds[from - 1];
    slice.extents = shapes_.extents.data() + slice.extentBegin;
  }
  return slice;
}

void RowStore::append(const RowSlice& rows) {
  const auto appendEnds = [&](std::vector<std::uint64_t>& ends, const std::uint64_t* from,
                              std::uint64_t begin) {
    const std::uint64_t base = ends.empty() ? 0 : ends.back();
    for (std::size_t i = 0; i < rows.rows; ++i) ends.push_back(base + from[i] - begin);
  };
  elements_.append(rows.elements, rows.bytes);
  if (rows.ends) appendEnds(shapes_.rowEnds, rows.ends, rows.begin);
  if (rows.extentEnds) {
    appendEnds(shapes_.extentEnds, rows.extentEnds, rows.extentBegin);
    shapes_.extents.insert(shapes_.extents.end(), rows.extents, rows.extents + extentsIn(rows));
  }
  rows_ += rows.rows;
}

void RowStore::append(const ::arrow::Table& table) {
  if (schema_.kind == ColumnKind::unsupported) {
    throw std::invalid_argument("the samples are of a type that has no rows in memory");
  }
  for (const auto& chunk : chunksOf(table, columnNames::data)) {
    requireType(*chunk, *schema_.schema->field(schema_.dataIndex)->type());
    if (schema_.kind == ColumnKind::list) {
      const auto& lists = static_cast<const ::arrow::ListArray&>(*chunk);
      const auto values = spannedValues(lists);
      requireNoNulls(*values);
      elements_.append(firstValue(*values), static_cast<std::size_t>(values->length()) * width_);
      appendEnds(lists, shapes_.rowEnds);
    } else if (schema_.kind == ColumnKind::blob) {
      const auto& blobs = static_cast<const ::arrow::BinaryArray&>(*chunk);
      if (blobs.length() > 0) {
        elements_.append(blobs.raw_data() + blobs.value_offset(0), spannedLength(blobs));
      }
      appendEnds(blobs, shapes_.rowEnds);
    } else {
      elements_.append(firstValue(*chunk), static_cast<std::size_t>(chunk->length()) * width_);
    }
  }
  if (schema_.dimensionIndex >= 0) {
    for (const auto& chunk : chunksOf(table, columnNames::dimension)) appendShapes(*chunk, shapes_);
  }
  rows_ += static_cast<std::size_t>(table.num_rows());
}

void RowStore::grow(std::size_t rows) {
  elements_.extend(rows * width_);
  rows_ += rows;
}

void RowStore::truncate(std::size_t rows) {
  const std::size_t elements =
      schema_.kind == ColumnKind::flat ? rows : (rows == 0 ? 0 : shapes_.rowEnds[rows - 1]);
  elements_.truncate(elements * width_);
  if (schema_.kind != ColumnKind::flat) shapes_.rowEnds.resize(rows);
  if (schema_.dimensionIndex >= 0) {
    shapes_.extentEnds.resize(rows);
    shapes_.extents.resize(rows == 0 ? 0 : shapes_.extentEnds.back());
  }
  rows_ = rows;
}

}  // namespace kyr::parquet
