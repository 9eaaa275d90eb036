#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kyr/recording/RecordingInfo.h"
#include "recording/ContentFiles.h"
#include "recording/TimeIndex.h"
#include "schema/RowStore.h"

namespace kyr::recording {

/// Whether a signal has times, samples or both, and how many.
struct SignalCounts {
  std::uint64_t times = 0;
  std::uint64_t samples = 0;
};

/// What the samples of a signal are made of.
enum class SampleKind {
  number,       ///< one number each
  fixed,        ///< equally many numbers each
  variable,     ///< a shape and its numbers
  blob,         ///< bytes
  unsupported,  ///< no samples are stored so
};

/// The times and samples of one signal, read from its contents.
///
/// Contents are opened when they are needed and compared with what the signal says of itself. What
/// is wrong with a file is a DamagedError that names it and the rows. One thread at a time.
class SignalRows {
 public:
  /// \param counts  of a live recording; null for a finished one, whose files tell
  SignalRows(std::shared_ptr<ContentFiles> files, std::shared_ptr<const SignalInfo> signal,
             const SignalCounts* counts);

  /// Opens the contents, which stay open from then on.
  void open();

  const SignalInfo& signal() const { return *signal_; }
  bool hasSamples() const { return signal_->dataStorageId.has_value(); }
  bool hasTimes();
  std::uint64_t timeCount();
  std::uint64_t sampleCount() const { return counts_.samples; }
  /// Rows that have both a time and a sample; of a signal with only one of them, its rows.
  std::uint64_t pairCount();

  /// The columns of the samples, as the signal's type and category ask for them.
  const parquet::SampleSchema& schema() const { return schema_; }
  SampleKind kind() const { return kind_; }
  /// Bytes of an element; 1 for blobs.
  std::size_t elementBytes() const { return width_; }
  /// Elements of each sample; 0 if they differ. If nobody told the shape of a fixed-dimension
  /// signal, its first sample decides.
  std::uint64_t elementsPerSample();

  /// Rows [first, first + count), which there must be.
  void readTimes(std::uint64_t first, std::uint64_t count, double* out);
  /// Throws what reading rows up to \p end would if they are not there. A damaged journal may claim
  /// more rows than there is memory for, so this comes before memory is allocated.
  void requireTimes(std::uint64_t end);
  void requireSamples(std::uint64_t end);
  /// Writes the elements of samples [first, first + count), which there must be, to \p out. They
  /// are numbers or of fixed size.
  void readElements(std::uint64_t first, std::uint64_t count, char* out);
  /// Samples of any kind with their shapes. They stay as they are as long as their keeper lives.
  parquet::HeldRows readSamples(std::uint64_t first, std::uint64_t count);
  /// Samples of fixed size, likewise.
  parquet::HeldRows readFixed(std::uint64_t first, std::uint64_t count);
  /// Where the samples that are decoded together with sample \p first end.
  std::uint64_t endOfPart(std::uint64_t first);

  /// Brings an index of the signal's times, which there must be, up to date.
  void extend(TimeIndex& index, const TimeIndex::Read& read);

 private:
  parquet::ContentReader& times();
  parquet::ContentReader& samples();
  // Calls work, with failures named as readingContent() does.
  template <typename Work>
  auto reading(parquet::ContentReader& content, std::uint64_t end, Work&& work);

  std::shared_ptr<ContentFiles> files_;
  std::shared_ptr<const SignalInfo> signal_;
  bool isLive_;
  std::optional<bool> hasTimes_;
  SignalCounts counts_;
  parquet::SampleSchema schema_;
  SampleKind kind_;
  std::size_t width_;
  std::optional<std::uint64_t> elements_;
  std::shared_ptr<parquet::ContentReader> times_;    // null until it is needed
  std::shared_ptr<parquet::ContentReader> samples_;  // null until it is needed
};

}  // namespace kyr::recording
