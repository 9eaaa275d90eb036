#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"
#include "kyr/recording/DamagedError.h"
#include "kyr/recording/Envelope.h"
#include "kyr/recording/RecordingInfo.h"

struct ArrowArrayStream;

namespace kyr::recording {

/// \brief The rows [from, to) of a signal, counted from 0.
struct RowRange {
  std::uint64_t from = 0;
  std::uint64_t to = std::numeric_limits<std::uint64_t>::max();
};

inline bool operator==(const RowRange& a, const RowRange& b) {
  return a.from == b.from && a.to == b.to;
}

struct ReaderOptions {
  /// Whether each row is compared with a checksum before it is handed out. Sizes, numbers of rows
  /// and types of columns are compared in any case.
  bool checks = true;
  /// Files that stay open at most; 0 for an eighth of the descriptors that the process may have
  /// (RLIMIT_NOFILE), at least 8 and at most 256. Two descriptors are for the folder. SampleBlocks
  /// and Arrow streams have up to two more each. The packs of a live recording are open besides,
  /// and once more for each Arrow stream.
  std::size_t maxOpenFiles = 0;
  Links links = Links::refused;  ///< inside of the folder, which may be a link itself
  /// Memory that envelopes of long signals keep between calls, at most; see
  /// RecordingReader::envelope(). The signal that was looked at last is kept in any case.
  std::size_t maxEnvelopeBytes = std::size_t{256} << 20U;
};

enum class RecordingState {
  finished,
  beingRecorded,  ///< its writer is alive; refresh() shows what it flushed meanwhile
  notFinished,    ///< its writer is gone; what was flushed last can be read
};

/// \brief Times and samples of consecutive rows, in the form in which StreamableSignal gives them.
struct SampleRows {
  std::vector<double> times;  ///< [s]; empty if the signal has none
  std::vector<char> bytes;    ///< elements of all samples, one sample after the other
  std::vector<std::vector<unsigned long>> dimensions;  ///< shape of each sample of a VarDim signal
  std::vector<int> sizes;  ///< elements of each sample; empty if each is one number
};

/// \brief Times and samples of consecutive rows, in memory that SampleBlocks owns.
struct SampleBlock {
  std::uint64_t firstRow = 0;
  std::size_t rows = 0;
  const double* times = nullptr;   ///< [s]; null if the signal has none
  const void* elements = nullptr;  ///< all samples, one after the other; null without samples
  /// Elements of each sample; 0 if they differ.
  std::size_t elementsPerSample = 0;
  /// Where samples begin if they differ, in elements: sample i has [offsets[i], offsets[i + 1]).
  /// Else null.
  const std::uint64_t* offsets = nullptr;
  /// Shapes of the samples of a VarDim signal: those of sample i are
  /// extents[extentOffsets[i]] and so on up to extentOffsets[i + 1]. Else null.
  const std::uint64_t* extents = nullptr;
  const std::uint64_t* extentOffsets = nullptr;
};

/// \brief Walks through rows of a signal block by block, in memory that is used again.
///
/// Memory: a block, and the decoded row groups of matrices and blobs that it comes from.
/// Independent of the reader that made it, which may go, except that one thread uses both.
class KYR_PARQUET_EXPORT SampleBlocks {
 public:
  ~SampleBlocks();
  SampleBlocks(SampleBlocks&&) noexcept;
  SampleBlocks& operator=(SampleBlocks&&) noexcept;

  /// \brief The next rows; null behind the last. Valid until the next call.
  /// \throws DamagedError as RecordingReader
  const SampleBlock* next();

 private:
  friend class RecordingReader;
  friend class SignalNumbers;
  class Impl;
  explicit SampleBlocks(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// \brief Reads the signals of a recording where its files are.
///
/// Opens finished, packed and live recordings. Opening reads recording.json, or the list and the
/// journal of a live recording, and nothing else; files of signals are opened when they are needed.
/// Nothing is written, and the folder may be read-only.
///
/// **Samples.** The elements of a matrix are in the order in which the host holds them in memory.
/// The format does not record which index runs fastest; `kyr cat` prints them as column by column.
/// Numbers are in this machine's byte order, with the width that their type has in docs/format.md;
/// a truth value is a byte, 0 or 1.
///
/// **Rows.** Times and samples of a signal may differ in number, above all while it is recorded.
/// Rows beyond the end are left out, not an error. A *pair* is a row that has both; each row of a
/// signal with times alone, or samples alone, counts as one.
///
/// **Checks.** Each row that is handed out was compared with a checksum once: of its block, its
/// batch or its file, whichever the recording has. What does not fit is a DamagedError. Whole
/// Parquet files of a live recording have no checksum yet.
///
/// **Changes of the folder.** Files that are open stay readable if the recording is replaced or
/// deleted. Others are looked for in the folder that was opened, whatever it is called now, and
/// then in the recording that has taken its place, if that has the same file. If it has not, the
/// error is a std::system_error with the code ESTALE: the recording is to be opened again. A file
/// that was exchanged is noticed by its size or checksum.
///
/// **Errors.** std::out_of_range for an id that there is not. DamagedError for a file that is
/// missing or not as the recording says. std::system_error if the system refuses to read.
///
/// One thread at a time uses a reader and its SampleBlocks. Any number of readers, in any threads
/// and processes, may read the same folder, also while it is recorded.
class KYR_PARQUET_EXPORT RecordingReader {
 public:
  /// \throws std::runtime_error naming the file or folder and what is wrong with it: not a
  ///         recording, damaged, of a newer format version
  explicit RecordingReader(const Path& folder, const ReaderOptions& options = {});
  ~RecordingReader();
  RecordingReader(RecordingReader&&) noexcept;
  RecordingReader& operator=(RecordingReader&&) noexcept;

  RecordingState state() const;

  /// \brief Take note of what a live recording got since it was opened or refreshed: rows, signals,
  /// its finishing. Does nothing for a finished one.
  ///
  /// All that the reader says afterwards is of one flush, or of the finished recording. References
  /// that it gave before end; rows that were read stay.
  /// \return whether anything is new
  /// \throws std::runtime_error as the constructor; the reader is as it was then
  bool refresh();

  /// \brief What describeRecording() says. Of a live recording: its signals with the spans of their
  /// times, and its files with their sizes now.
  RecordingInfo info() const;

  const Attributes& attributes() const;

  /// \brief The signals by ascending id. In a live recording they have no codec and no time span.
  const std::vector<SignalInfo>& signals() const;
  const SignalInfo& signal(int id) const;

  /// \brief The id of the only signal of that name.
  /// \throws std::invalid_argument naming the ids if several signals have the name, and the name
  ///         that is most like it if none has
  int idOf(const std::string& name) const;

  /// \brief Ids of the signals whose names match \p pattern, ascending.
  /// \param pattern  as in a shell: `*`, `?`, `[a-z]`, `[!a-z]`, and `\` before a special character
  std::vector<int> matching(const std::string& pattern) const;

  /// \brief Ids of the signals that share the samples of signal \p id, itself included, ascending.
  /// Empty if it has no samples.
  const std::vector<int>& withSameSamples(int id) const;
  /// \brief The same for times. May open the file of a signal without a time file.
  const std::vector<int>& withSameTimes(int id) const;

  std::uint64_t sampleCount(int id) const;
  /// \brief Number of times; 0 if the signal has none. May open its file.
  std::uint64_t timeCount(int id) const;
  /// \brief Number of pairs.
  std::uint64_t pairCount(int id) const;
  /// \brief Smallest and largest time [s]; empty without times, and if one of them is infinite.
  /// Reads the times of a live recording once, unless they are marked as ascending.
  std::optional<TimeSpan> timeSpan(int id) const;

  /// \brief Bytes of an element: of a number, or of a blob's byte.
  std::size_t elementBytes(int id) const;
  /// \brief Elements of each sample: 1 for scalars, 0 for samples of varying shape and for blobs.
  /// If nobody told the shape of a fixed-dimension signal, its first sample is read.
  std::uint64_t elementsPerSample(int id) const;

  /// \brief Read times [s].
  std::vector<double> times(int id, const RowRange& rows = {}) const;
  /// \param out  memory for the times of \p rows
  /// \return times that were read
  std::uint64_t readTimes(int id, const RowRange& rows, double* out) const;

  /// \brief Read samples that all have the same number of elements, one after the other.
  /// \param out  aligned as an element is
  /// \param size  bytes that \p out has
  /// \return samples that were read
  /// \throws std::invalid_argument if the samples of the signal differ in size, or \p size is not
  ///         enough
  std::uint64_t readElements(int id, const RowRange& rows, void* out, std::size_t size) const;

  /// \brief Read times and samples of any kind.
  SampleRows read(int id, const RowRange& rows = {}) const;

  /// \brief Walk through pairs.
  /// \param maxRows  rows of a block at most; 0 counts as 1
  SampleBlocks blocks(int id, const RowRange& rows = {}, std::size_t maxRows = 65'536) const;

  /// \brief Hand out pairs through Arrow's C stream interface.
  ///
  /// Columns: `time` (float64), unless the signal has no times; `value`, unless it has times alone.
  /// Booleans are Arrow's bool, samples of fixed dimension fixed_size_list, others list with a
  /// column `shape` (list of uint64) behind them, blobs binary. The schema's metadata has the keys
  /// `name`, `unit` and `description`.
  ///
  /// The stream opens files of its own, depends on nothing here, and may be used in another thread.
  /// \param out  receives the stream, which its user releases
  /// \param maxRows  rows of a record batch at most; 0 counts as 1
  void exportTo(int id, ArrowArrayStream* out, const RowRange& rows = {},
                std::size_t maxRows = 65'536) const;

  /// \brief Rows whose time lies in [\p from, \p to], both ends included: ascending ranges with
  /// gaps between them. NaN times lie in no window.
  ///
  /// Where the times ascend, repetitions included, that is at most one range. It is found by
  /// bisection where row groups are marked as ascending, which decodes two of them at most. All
  /// times are read otherwise, but for the first call only. Where they do not ascend, row groups
  /// that lie partly in the window are read at each call.
  /// \param from, to  [s]
  std::vector<RowRange> rowsBetween(int id, double from, double to) const;

  /// \brief What a plot of the pairs with times in [\p from, \p to] shows: first, last, smallest
  /// and largest value of each of \p columns equally wide columns, 1 to 65,536.
  ///
  /// A column holds the times from its left end up to the next column's, the last one also \p to.
  /// Values become float64, truth values 0 and 1; a signal with times alone has NaN. A signal
  /// without times has its row numbers in place of times. Rows whose time is NaN are in no column.
  ///
  /// All values and times that are told of a column are those of rows in it. Up to 4,194,304 rows
  /// the columns are exact. Beyond that, a bucket of 256 consecutive rows (more from 134 million
  /// rows on: 1/524,288 of all) may lie in two columns that have at least 8 times as many rows.
  /// The first and last row and the smallest and largest value of such a bucket are told in their
  /// columns, so that no peak gets lost. Its other rows are counted in the first of the two, and
  /// need not be the last of that column, or the first, smallest or largest of the next one.
  ///
  /// **Cost.** A window of up to 4,194,304 rows is read. The first larger one reads all rows of the
  /// signal, in as many threads as the machine has, at most 8, and keeps 96 bytes for each bucket,
  /// so at most 50 MB per signal and element; later ones take a time that does not depend on
  /// their length. After refresh() only new rows are read. Where times do not ascend, all rows
  /// between the first and the last one of the window are read at each call.
  /// \param from, to  [s], finite
  /// \param element  of each sample, in the order of memory. Samples of varying shape without such
  ///        an element count as NaN.
  /// \throws std::invalid_argument if there is no such window, number of columns or element, or the
  ///         samples are blobs
  Envelope envelope(int id, double from, double to, std::size_t columns,
                    std::uint64_t element = 0) const;

  /// \brief Spans of equal values in a window, for integers, truth values and blobs.
  ///
  /// Ascending, at most \p columns + 1. Values that change more often than that are told as mixed:
  /// a span begins and ends with a column, or a row of another value that is alone in its column.
  /// Blobs are compared by a checksum of 53 bits. The rest is as for envelope().
  std::vector<ValueSpan> spans(int id, double from, double to, std::size_t columns,
                               std::uint64_t element = 0) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::recording
