#include "Reader.h"

#include <arrow/c/abi.h>
#include <nanobind/stl/array.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>
#include <vector>

#include "Capsules.h"
#include "Define.h"
#include "Errors.h"
#include "Memory.h"

namespace kyr::python {

using recording::RecordingReader;
using recording::RowRange;

Reader::Reader(const nb::bytes& folder, bool checks, bool followsLinks)
    : folder_(folder.c_str(), folder.size()) {
  recording::ReaderOptions options;
  options.checks = checks;
  options.links = followsLinks ? Links::followed : Links::refused;
  const nb::gil_scoped_release release;
  reader_.emplace(Path::fromNarrow(folder_), options);
}

RecordingReader& Reader::open() {
  if (!reader_) throw ClosedError(folder_ + ": the recording is closed");
  return *reader_;
}

void Reader::close() {
  const nb::gil_scoped_release release;
  const std::lock_guard guard(lock_.mutex());
  reader_.reset();
}

bool Reader::isClosed() {
  const nb::gil_scoped_release release;
  const std::lock_guard guard(lock_.mutex());
  return !reader_;
}

bool Reader::refresh() {
  return use([this](RecordingReader& open) {
    const bool isNew = open.refresh();
    if (isNew) ++changes_;
    return isNew;
  });
}

std::uint64_t Reader::changes() {
  return use([this](RecordingReader&) { return changes_; });
}

int timesId(const RecordingReader& reader, int id) {
  const auto& same = reader.withSameTimes(id);
  return same.empty() ? id : same.front();
}

namespace {

// Rows between two looks for Ctrl-C.
constexpr std::uint64_t kPieceRows = std::uint64_t{1} << 22;

// Reads rows into memory of their final size, and ends early for Ctrl-C. `read` gets a range of
// rows and where they belong, and returns how many there are.
template <typename Read>
Bytes readRows(RowRange rows, std::size_t width, const Read& read) {
  const std::uint64_t count = rows.to > rows.from ? rows.to - rows.from : 0;
  if (width > 0 && count > SIZE_MAX / width) throw std::bad_alloc();
  Memory memory(count * width);
  std::uint64_t done = 0;
  while (done < count) {
    const std::uint64_t piece = std::min(kPieceRows, count - done);
    const RowRange range{rows.from + done, rows.from + done + piece};
    const std::uint64_t got = read(range, memory.data() + done * width, piece * width);
    done += got;
    if (got < piece) break;
    if (PyErr_CheckSignals() != 0) throw nb::python_error();
  }
  return std::move(memory).release(done * width);
}

Bytes readTimes(Reader& reader, int id, std::uint64_t from, std::uint64_t to) {
  to = std::min(to, reader.use([&](RecordingReader& open) { return open.timeCount(id); }));
  return readRows({from, to}, sizeof(double), [&](RowRange range, char* out, std::size_t) {
    return reader.use([&](RecordingReader& open) {
      return open.readTimes(id, range, reinterpret_cast<double*>(out));
    });
  });
}

Bytes readElements(Reader& reader, int id, std::uint64_t from, std::uint64_t to) {
  const auto [samples, width] = reader.use([&](RecordingReader& open) {
    return std::pair(open.sampleCount(id), open.elementsPerSample(id) * open.elementBytes(id));
  });
  return readRows(
      {from, std::min(to, samples)}, width, [&](RowRange range, char* out, std::size_t size) {
        return reader.use(
            [&](RecordingReader& open) { return open.readElements(id, range, out, size); });
      });
}

// Samples that differ in size, one after the other.
struct Varying {
  std::vector<std::uint8_t> bytes;
  std::vector<std::int64_t> offsets{0};  // of the samples, in elements; one more than samples
  std::vector<std::int64_t> extents;     // of the shapes of all samples
  std::vector<std::int64_t> extentOffsets{0};

  void add(const recording::SampleBlock& block, std::size_t width) {
    const std::uint64_t first = block.offsets != nullptr ? block.offsets[0] : 0;
    const auto bound = [&](std::size_t row) {
      return block.offsets != nullptr ? block.offsets[row] : row * block.elementsPerSample;
    };
    const auto* const elements = static_cast<const std::uint8_t*>(block.elements);
    bytes.insert(bytes.end(), elements + first * width, elements + bound(block.rows) * width);
    const auto before = offsets.back();
    for (std::size_t row = 1; row <= block.rows; ++row) {
      offsets.push_back(before + static_cast<std::int64_t>(bound(row) - first));
    }
    if (block.extents == nullptr) return;
    for (std::size_t row = 0; row < block.rows; ++row) {
      extents.insert(extents.end(), block.extents + block.extentOffsets[row],
                     block.extents + block.extentOffsets[row + 1]);
      extentOffsets.push_back(static_cast<std::int64_t>(extents.size()));
    }
  }
};

using VaryingArrays = std::tuple<Bytes, Integers, Integers, Integers>;

VaryingArrays readVarying(Reader& reader, int id, std::uint64_t from, std::uint64_t to) {
  Varying samples;
  auto [blocks, width] = reader.use([&](RecordingReader& open) {
    return std::pair(open.blocks(id, {from, to}), open.elementBytes(id));
  });
  while (reader.use([&, &walk = blocks, bytes = width](RecordingReader&) {
    const recording::SampleBlock* const block = walk.next();
    if (block != nullptr) samples.add(*block, bytes);
    return block != nullptr;
  })) {
    if (PyErr_CheckSignals() != 0) throw nb::python_error();
  }
  return {arrayOf(std::move(samples.bytes)), arrayOf(std::move(samples.offsets)),
          arrayOf(std::move(samples.extents)), arrayOf(std::move(samples.extentOffsets))};
}

std::vector<std::pair<std::uint64_t, std::uint64_t>> rowsBetween(Reader& reader, int id,
                                                                 double from, double to) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  for (const RowRange& range :
       reader.use([&](RecordingReader& open) { return open.rowsBetween(id, from, to); })) {
    ranges.emplace_back(range.from, range.to);
  }
  return ranges;
}

std::optional<std::pair<double, double>> timeSpan(Reader& reader, int id) {
  const auto span = reader.use([&](RecordingReader& open) { return open.timeSpan(id); });
  if (!span) return std::nullopt;
  return std::pair(span->from, span->to);
}

std::tuple<std::uint64_t, std::uint64_t, std::uint64_t> counts(Reader& reader, int id) {
  return reader.use([&](RecordingReader& open) {
    return std::tuple(open.pairCount(id), open.timeCount(id), open.sampleCount(id));
  });
}

using Numbers = decltype(arrayOf(std::vector<double>()));

// The members of each column that has rows, one column after the other. Behind them time and value
// of the rows before and after the window; NaN if there is none.
std::pair<Numbers, std::array<double, 4>> envelope(Reader& reader, int id, double from, double to,
                                                   std::size_t columns, std::uint64_t element) {
  const recording::Envelope found = reader.use(
      [&](RecordingReader& open) { return open.envelope(id, from, to, columns, element); });
  std::vector<double> numbers;
  for (const recording::EnvelopeColumn& column : found.columns) {
    if (column.rows == 0) continue;
    for (const std::uint64_t count : {column.firstRow, column.rows, column.nans}) {
      numbers.push_back(static_cast<double>(count));
    }
    numbers.insert(numbers.end(), {column.firstTime, column.first, column.minTime, column.min,
                                   column.maxTime, column.max, column.lastTime, column.last});
  }
  constexpr double kNone = recording::EnvelopeColumn::kNone;
  const recording::EnvelopePoint none{0, kNone, kNone};
  const recording::EnvelopePoint before = found.before.value_or(none);
  const recording::EnvelopePoint after = found.after.value_or(none);
  return {arrayOf(std::move(numbers)), {before.time, before.value, after.time, after.value}};
}

const char* stateName(Reader& reader) {
  switch (reader.use([](RecordingReader& open) { return open.state(); })) {
    case recording::RecordingState::beingRecorded:
      return "being recorded";
    case recording::RecordingState::notFinished:
      return "not finished";
    default:
      return "finished";
  }
}

nb::capsule streamOf(Reader& reader, int id, std::uint64_t from, std::uint64_t to,
                     std::size_t maxRows) {
  auto stream = std::make_unique<ArrowArrayStream>();
  reader.use([&](RecordingReader& open) {
    open.exportTo(id, stream.get(), {from, to}, maxRows);
    return 0;
  });
  return streamCapsule(std::move(stream));
}

template <typename Result, typename... Arguments>
auto call(Result (RecordingReader::*method)(Arguments...) const) {
  return [method](Reader& reader, std::decay_t<Arguments>... arguments) {
    return reader.use([&](RecordingReader& open) -> std::decay_t<Result> {
      return (open.*method)(arguments...);
    });
  };
}

}  // namespace

void defineReader(nb::module_& module) {
  using namespace nb::literals;
  nb::class_<Reader>(module, "Reader", "Reads the signals of a recording where its files are.")
      .def(nb::init<nb::bytes, bool, bool>(), "folder"_a, "checks"_a = true,
           "follow_links"_a = false)
      .def("close", &Reader::close)
      .def_prop_ro("closed", &Reader::isClosed)
      .def_prop_ro("state", stateName, "\"finished\", \"being recorded\" or \"not finished\"")
      .def("refresh", &Reader::refresh,
           "Take note of what a live recording got. True if anything is new.")
      .def_prop_ro("changes", &Reader::changes, "How often refresh() found anything new.")
      .def("signals", call(&RecordingReader::signals), "The signals by ascending id.")
      .def("matching", call(&RecordingReader::matching), "pattern"_a,
           "Ids of the signals whose names match a pattern of the shell's kind.")
      .def("with_same_samples", call(&RecordingReader::withSameSamples), "id"_a,
           "Ids of the signals that share the samples.")
      .def(
          "times_id",
          [](Reader& reader, int id) {
            return reader.use([id](RecordingReader& open) { return timesId(open, id); });
          },
          "id"_a, "The first of the signals that share the times.")
      .def("counts", counts, "id"_a, "The numbers of pairs, of times, and of samples.")
      .def("elements_per_sample", call(&RecordingReader::elementsPerSample), "id"_a)
      .def("time_span", timeSpan, "id"_a, "Smallest and largest time [s]; None without times.")
      .def("read_times", readTimes, "id"_a, "start"_a, "stop"_a,
           "Bytes of the times of rows [start, stop), 8 each.")
      .def("read_elements", readElements, "id"_a, "start"_a, "stop"_a,
           "Bytes of samples [start, stop), which have equally many elements.")
      .def("read_varying", readVarying, "id"_a, "start"_a, "stop"_a,
           "Samples [start, stop) of any size: bytes, offsets in elements, and for samples with\n"
           "shapes their extents and offsets of these.")
      .def("rows_between", rowsBetween, "id"_a, "start"_a, "stop"_a,
           "Ranges of rows whose times [s] lie in a window, both ends included.")
      .def("envelope", envelope, "id"_a, "start"_a, "stop"_a, "columns"_a, "element"_a,
           "The numbers of the columns that have rows, and of the rows beside the window.")
      .def("stream", streamOf, "id"_a, "start"_a, "stop"_a, "max_rows"_a,
           "Rows [start, stop) as a capsule of Arrow's C stream interface.");
  module.def("schema_of", schemaCapsule, "stream"_a, "The schema of such a stream, as a capsule.");
}

}  // namespace kyr::python
