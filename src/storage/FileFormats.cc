#include "storage/FileFormats.h"

#include <arrow/type.h>

#include <algorithm>

namespace kyr::parquet {

std::shared_ptr<const FileFormat> FileFormats::of(
    const std::shared_ptr<const ::arrow::Schema>& schema, const Codec& codec) {
  constexpr std::size_t kKept = 8;
  const auto found = std::find_if(known_.begin(), known_.end(), [&](const auto& each) {
    const auto& known = each.second->schema();
    return each.first == codec &&
           (known == schema || known->Equals(*schema, /*check_metadata=*/true));
  });
  if (found != known_.end()) return found->second;
  auto properties =
      codec ? options_.buildWriterProperties(*codec) : options_.buildWriterProperties();
  if (known_.size() == kKept) known_.erase(known_.begin());
  known_.emplace_back(codec, std::make_shared<FileFormat>(schema, std::move(properties)));
  return known_.back().second;
}

}  // namespace kyr::parquet
