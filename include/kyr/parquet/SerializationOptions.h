#pragma once

#include <arrow/util/type_fwd.h>

#include <cstdint>

#include "kyr/platform/export.h"

/// \brief The process-wide options that steer how files are written.
///
/// Plain globals, read at the moment of use and not synchronised. A `ParquetSerializerWorker`, a
/// `StreamableWriter` and a `ParquetExportSerializerWorker` copy the first three and the codec when
/// they are made, a `ParquetSignal` copies `bSharedTimeColumn`. Later changes reach only objects
/// made afterwards.
namespace kyr::parquet::serialization_options {

/// Dictionary-encode every column. Initially true. A pool with `SafeStorage` uses dictionaries only
/// where values repeat.
KYR_PARQUET_EXPORT extern bool bDictionary;

/// Largest dictionary page of a column [bytes]; used only with `bDictionary`. Initially 1048576.
KYR_PARQUET_EXPORT extern std::int32_t dictionaryLimit;

/// Rows handed to a column's encoder at a time. Initially 4096. With a value below 1 nothing can be
/// written: every write fails with a status that says so.
KYR_PARQUET_EXPORT extern std::int32_t batchSize;

/// Keep a signal's time vector in a file of its own, which signals with equal time share, instead
/// of in a column of its data file. Initially true.
KYR_PARQUET_EXPORT extern bool bSharedTimeColumn;

/// Codec of files for which no other one is set. Initially UNCOMPRESSED, which leaves a pool with
/// `SafeStorage` free to choose. In other pools a `ParquetSignal` always sets a codec of its own.
KYR_PARQUET_EXPORT extern ::arrow::Compression::type compressionMethod;

}  // namespace kyr::parquet::serialization_options
