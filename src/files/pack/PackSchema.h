#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kyr::parquet {

/// The column of a pack that says to which storage id each row belongs.
extern const std::string kPackColumn;

/// The columns of a pack: those of its contents, and behind them the storage ids. Columns that are
/// no lists need no levels, because nothing of theirs is ever null.
std::shared_ptr<::arrow::Schema> packSchema(const ::arrow::Schema& contents);

/// The columns of the contents of a pack.
std::shared_ptr<::arrow::Schema> contentSchema(const ::arrow::Schema& pack);

/// Whether the last column, and not the only one, is that of storage ids.
bool isPackSchema(const ::arrow::Schema& schema);

/// A storage id and how many rows it has.
using IdRun = std::pair<int, std::size_t>;

/// The storage ids of a pack's rows, one run after the other.
/// \param mayBeRuns  whether the array may be one of runs, which NumberFile takes: it is then one
///        unless the runs are short
std::shared_ptr<::arrow::Array> storageIdsOf(const std::vector<IdRun>& runs, bool mayBeRuns);

/// Whether columns have the same names and types. Those of a pack and of a file differ in which can
/// have no nulls.
bool haveSameTypes(const ::arrow::Schema& a, const ::arrow::Schema& b);

}  // namespace kyr::parquet
