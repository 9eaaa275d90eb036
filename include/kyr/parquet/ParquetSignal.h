#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

class ParquetSerializerWorker;
class WholeSignal;

/// \brief One recorded signal that is written to and read from storage as a whole.
///
/// The object holds no samples: only the storage ids of its files, its type and its category. Set
/// both before the first write or read; until then there is no category, and writing samples fails.
/// Destroying a stored signal releases its files, and deletes those that no other signal shares; an
/// exception while doing so ends the process.
///
/// There are no windows of rows here: getData() reads everything. A `StreamableSignal` reads
/// windows. Pools hand it out in row-group mode (feature flag "fKYRUseParquetRowGroup") and, in
/// every mode, with SafeStorage.
///
/// Times go into a file of their own, which signals with equal times share, or into a column of the
/// data file. `serialization_options::bSharedTimeColumn` decides it when the signal is made.
///
/// \par What only pools without SafeStorage do
/// - The signal's own codec always decides, and it is "uncompressed" unless set: the process-wide
///   compression option does not reach these files.
/// - Content is told apart by a hash that is often equal for short columns of small integers: such
///   a signal may read back as another. It takes -0 for 0.
/// - Samples are shared by content: type, values and the values of the dimension vectors. A fixed
///   2x2 matrix and two vectors of 2 with the same values count as equal.
/// - Writes fail silently: ask writeStatus(). Parquet refuses the codecs LZ4_FRAME and LZO, and a
///   variable-dimension signal of a single sample (its "dimension" column is missing).
/// - setData() on a signal that has storage writes the new files first and then refuses them: call
///   resetData() first.
///
/// With SafeStorage, content is told apart by 128 bits, shapes included; failed writes are thrown
/// and leave nothing behind; setData() on a signal that has storage is refused before anything is
/// written; times always have a file of their own.
///
/// One thread at a time. Not copyable.
class KYR_PARQUET_EXPORT ParquetSignal {
 public:
  /// \param worker  owner of the files; shared, so it lives at least as long as the signal
  /// \param timeStorageId, dataStorageId  files to take over, or -554114 for none. If \p worker
  ///         does not know one of them, the signal keeps both ids but has no data
  /// \throws std::invalid_argument if \p worker is empty
  ParquetSignal(std::shared_ptr<ParquetSerializerWorker> worker, int timeStorageId,
                int dataStorageId);
  ~ParquetSignal();
  ParquetSignal(const ParquetSignal&) = delete;
  ParquetSignal& operator=(const ParquetSignal&) = delete;

  /// \brief Store the signal. Empty \p data stores nothing.
  ///
  /// \param time  sample times [s]; empty for a signal without time
  /// \param data  the samples' elements back to back, in the host's order (column-major for
  ///         matrices); a trailing partial element is ignored. Read during the call, not kept
  /// \param dims  empty for scalars; one entry for samples that all have this shape; else one entry
  ///         per sample
  /// \param lengths  for `Binary` only: bytes of each sample; else ignored
  /// \throws std::runtime_error "Null data type encountered." or "Unknown data type encountered.";
  ///         nothing is written
  /// \throws std::invalid_argument if the category is unknown, or shapes or lengths ask for more
  ///         than \p data holds; nothing is written
  /// \throws std::runtime_error "Signal already has a time storage associated." or "Signal already
  ///         has a data storage associated."; the files written for this call stay without an owner
  void setData(const std::vector<double>& time, const std::vector<char>& data,
               const std::vector<std::vector<std::size_t>>& dims, const std::vector<int>& lengths);

  /// \brief Read the whole signal. Outputs of a part without storage are left as they are.
  ///
  /// \param time  replaced by the sample times [s]
  /// \param data  replaced by the samples' elements, as setData() took them
  /// \param dims  replaced by the samples' shapes if they are stored (variable dimensions, two
  ///         samples or more); a fixed shape is not stored
  /// \throws std::runtime_error naming the file if it is missing, damaged or of another type
  void getData(std::vector<double>& time, std::vector<char>& data,
               std::vector<std::vector<std::size_t>>& dims);

  /// \brief Do what the other getData() does, and tell the size of each sample.
  /// \param lengths  replaced: per sample its bytes (`Binary`, `ByteString`) or its elements
  ///         (matrices); empty for a scalar signal
  void getData(std::vector<double>& time, std::vector<char>& data,
               std::vector<std::vector<std::size_t>>& dims, std::vector<int>& lengths);

  /// \brief Release the files; the signal is empty afterwards.
  void resetData();
  bool hasData() const;

  /// \brief Storage id of part 0 (time) or 1 (data); -554114 for none and for any other part.
  int getStorageId(char part) const;

  void setDataType(KYRSignalDataType type);
  KYRSignalDataType getDataType() const;
  void setCategory(KYRSignalCategory category);
  KYRSignalCategory getCategory() const;

  void setParquetCompressionType(const ::arrow::Compression::type& type);
  std::optional<::arrow::Compression::type> getParquetCompressionType() const;

  /// \brief The directory of the signal's files.
  Path getParquetDirectory() const;

  /// \brief The first failure among the writes of this signal's files, OK if there was none.
  ::arrow::Status writeStatus() const;

 private:
  friend class SafeBackend;
  explicit ParquetSignal(std::unique_ptr<WholeSignal> impl);
  std::unique_ptr<WholeSignal> impl_;
};

}  // namespace kyr::parquet
