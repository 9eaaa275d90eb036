#pragma once

#include "kyr/parquet/RedundancyChecker.h"

namespace kyr::parquet::RedundancyChecker {

/// Does what processDataAndCheck() does. A chunk that has the number \p expected, because it
/// repeats another one, is not searched for.
unsigned long numberData(Context<unsigned long>* context, const void* data, unsigned long size,
                         KYRSignalDataType type, unsigned long expected);
unsigned long numberTime(Context<unsigned long>* context, const double* time, unsigned long count,
                         unsigned long expected);

}  // namespace kyr::parquet::RedundancyChecker
