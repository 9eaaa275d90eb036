#include "export/ParquetFooter.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <arrow/ipc/writer.h>
#include <arrow/util/base64.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>
#include <parquet/exception.h>
#include <parquet/file_reader.h>
#include <parquet/file_writer.h>
#include <parquet/metadata.h>

#include <stdexcept>
#include <string>

#include "cli/Errors.h"
#include "kyr/parquet/ParquetWriterOptions.h"

namespace kyr::tool {

namespace {

// After the footer come its length, in 4 bytes, and 4 bytes that mark Parquet files.
constexpr std::uintmax_t kTrailerBytes = 8;

// The same footer with key-value metadata. They can only be set when a footer is built, so this
// builds one and adds the row groups of the first.
std::unique_ptr<::parquet::FileMetaData> extended(const ::parquet::FileMetaData& metadata,
                                                  const ::arrow::Schema& schema) {
  const auto serialized = check(::arrow::ipc::SerializeSchema(schema));
  const auto keyValues = ::arrow::key_value_metadata(
      {{"ARROW:schema", ::arrow::util::base64_encode(serialized->ToString())}});
  auto result = ::parquet::FileMetaDataBuilder::Make(
                    metadata.schema(), parquet::ParquetWriterOptions().buildWriterProperties())
                    ->Finish(keyValues);
  result->AppendRowGroups(metadata);
  return result;
}

}  // namespace

void addArrowSchema(const std::filesystem::path& file, const ::arrow::Schema& schema) {
  try {
    const auto metadata =
        ::parquet::ReadMetaData(check(::arrow::io::ReadableFile::Open(file.string())));
    const auto footer = extended(*metadata, schema);
    std::filesystem::resize_file(
        file, std::filesystem::file_size(file) - kTrailerBytes - metadata->size());
    const auto stream = check(::arrow::io::FileOutputStream::Open(file.string(), /*append=*/true));
    ::parquet::WriteFileMetaData(*footer, stream.get());
    check(stream->Close());
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(fmt::format("{} cannot be written: {}", file.string(), error.what()));
  }
}

}  // namespace kyr::tool
