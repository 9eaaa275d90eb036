#include <nanobind/stl/optional.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "Define.h"
#include "Memory.h"
#include "Reader.h"
#include "kyr/recording/Resampling.h"

namespace kyr::python {

namespace {

using recording::RecordingReader;
using recording::RowRange;

// Where the times of a grid lie among the samples of a signal, a vector for each member of
// SamplePlace.
struct Places {
  std::vector<std::int64_t> before;
  std::vector<std::int64_t> after;
  std::vector<double> part;
  std::vector<std::uint8_t> isAtBefore;

  explicit Places(const std::vector<recording::SamplePlace>& places) {
    before.reserve(places.size());
    after.reserve(places.size());
    part.reserve(places.size());
    isAtBefore.reserve(places.size());
    for (const recording::SamplePlace& place : places) {
      before.push_back(place.before);
      after.push_back(place.after);
      part.push_back(place.part);
      isAtBefore.push_back(place.isAtBefore ? 1 : 0);
    }
  }
};

struct Grid {
  std::vector<double> times;
  std::map<int, Places> places;         // by the first signal that has the times
  std::vector<std::pair<int, int>> of;  // each signal, and that first one
};

Grid gridOf(const RecordingReader& reader, const std::vector<int>& ids, std::optional<double> step,
            double start, double stop) {
  recording::ResampleOptions options;
  options.step = step;
  const recording::Resampling resampling(reader, ids, options);
  Grid grid;
  grid.times = resampling.times();
  const auto first = std::lower_bound(grid.times.begin(), grid.times.end(), start);
  const auto last = std::upper_bound(first, grid.times.end(), stop);
  const RowRange rows{static_cast<std::uint64_t>(first - grid.times.begin()),
                      static_cast<std::uint64_t>(last - grid.times.begin())};
  grid.times = std::vector<double>(first, last);
  for (const int id : ids) {
    const int owner = timesId(reader, id);
    if (grid.places.count(owner) == 0) grid.places.emplace(owner, resampling.places(id, rows));
    grid.of.emplace_back(id, owner);
  }
  return grid;
}

// Times [s], and for each signal where they lie among its samples.
nb::tuple places(Reader& reader, const std::vector<int>& ids, std::optional<double> step,
                 double start, double stop) {
  Grid grid =
      reader.use([&](RecordingReader& open) { return gridOf(open, ids, step, start, stop); });
  std::map<int, nb::object> shared;
  for (auto& [owner, each] : grid.places) {
    shared[owner] =
        nb::make_tuple(arrayOf(std::move(each.before)), arrayOf(std::move(each.after)),
                       arrayOf(std::move(each.part)), arrayOf(std::move(each.isAtBefore)));
  }
  nb::dict ofSignals;
  for (const auto& [id, owner] : grid.of) ofSignals[nb::int_(id)] = shared.at(owner);
  return nb::make_tuple(arrayOf(std::move(grid.times)), ofSignals);
}

}  // namespace

void defineResampling(nb::module_& module) {
  using namespace nb::literals;
  module.def("resample", places, "reader"_a, "ids"_a, "step"_a.none(), "start"_a, "stop"_a,
             "Times [s] of a grid between two times, both ends included, and for each signal four\n"
             "arrays: the sample before each time (-1 for none), the one after it, where the time\n"
             "lies between them (0 to 1), and whether it is that of the sample before.");
}

}  // namespace kyr::python
