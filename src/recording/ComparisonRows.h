#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {

/// What the samples of a signal are to a comparison.
enum class ComparedKind {
  none,     ///< there are times alone
  numbers,  ///< equally many numbers each
  shapes,   ///< a shape and its numbers
  blobs,    ///< bytes, of which a 64-bit hash is compared
};

ComparedKind comparedKindOf(const SignalInfo& signal);

/// Whether a double cannot hold all values of a signal.
bool needsLongDouble(const SignalInfo& signal);

/// Some consecutive rows of a signal in memory, which go on at their end as long as there are any.
/// Rows count from the first one of the signal.
///
/// Samples of varying shape begin with the number of their extents, and the extents.
template <typename Number>
class ComparisonRows {
 public:
  /// \param reader  must outlive the object
  /// \param hasTimes  whether times are read
  /// \param checkpoint  called before rows are read; may be empty, and must outlive the object
  ComparisonRows(const RecordingReader& reader, int id, bool hasTimes,
                 const std::function<void()>& checkpoint);

  /// All rows of the signal.
  std::uint64_t count() const { return count_; }
  /// The first row in memory, and the one behind the last.
  std::uint64_t begin() const { return begin_; }
  std::uint64_t end() const { return end_; }
  bool isAtEnd(std::uint64_t row) { return row == end_ && !load(); }
  /// Reads more rows; false behind the last.
  bool load();
  /// Forgets the rows before \p row, sooner or later.
  void drop(std::uint64_t row);

  bool hasTimes() const { return hasTimes_; }
  /// Whether all times so far were finite, and none was before the one in front of it.
  bool ascends() const { return ascends_; }
  /// The time of a row, or without times its number.
  double time(std::uint64_t row) const {
    return hasTimes_ ? times_[static_cast<std::size_t>(row - begin_)] : static_cast<double>(row);
  }
  const double* times(std::uint64_t row) const {
    return &times_[static_cast<std::size_t>(row - begin_)];
  }

  /// Numbers of each sample; 0 if they differ.
  std::size_t elements() const { return elements_; }
  bool hasShapes() const { return kind_ == ComparedKind::shapes; }
  std::size_t sizeOf(std::uint64_t row) const {
    return hasShapes() ? offsetOf(row + 1) - offsetOf(row) : elements_;
  }
  /// The first number of a sample; its shape in front of it, if shapes vary.
  const Number* values(std::uint64_t row) const { return values_.data() + offsetOf(row); }

 private:
  std::size_t offsetOf(std::uint64_t row) const {
    const auto place = static_cast<std::size_t>(row - begin_);
    return hasShapes() ? offsets_[place] : place * elements_;
  }
  void loadNumbers(std::uint64_t rows);
  void loadBlock(const SampleBlock& block);
  void noteTimes(std::size_t from);

  const RecordingReader& reader_;
  const std::function<void()>* checkpoint_;
  int id_;
  ComparedKind kind_;
  bool hasTimes_;
  std::size_t elements_;
  std::uint64_t count_;
  std::uint64_t blockRows_;
  std::uint64_t begin_ = 0;
  std::uint64_t end_ = 0;
  bool ascends_ = true;
  std::vector<double> times_;
  std::vector<Number> values_;
  std::vector<std::size_t> offsets_{0};  // where samples of varying shape begin, and the end
  std::vector<char> bytes_;
  std::optional<SampleBlocks> blocks_;  // where shapes and blobs come from
};

extern template class ComparisonRows<double>;
extern template class ComparisonRows<long double>;

}  // namespace kyr::recording
