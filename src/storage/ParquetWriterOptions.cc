#include "kyr/parquet/ParquetWriterOptions.h"

#include "kyr/parquet/SerializationOptions.h"

namespace kyr::parquet {

ParquetWriterOptions::ParquetWriterOptions()
    : compression(serialization_options::compressionMethod),
      dictionary(serialization_options::bDictionary),
      dictionaryPageSizeLimit(serialization_options::dictionaryLimit),
      writeBatchSize(serialization_options::batchSize) {}

std::shared_ptr<::parquet::WriterProperties> ParquetWriterOptions::buildWriterProperties() const {
  return buildWriterProperties(compression);
}

std::shared_ptr<::parquet::WriterProperties> ParquetWriterOptions::buildWriterProperties(
    const ::arrow::Compression::type& codec) const {
  ::parquet::WriterProperties::Builder builder;
  builder.version(version)->data_page_version(dataPageVersion)->compression(codec);
  if (dictionary) {
    builder.enable_dictionary()->dictionary_pagesize_limit(dictionaryPageSizeLimit);
  } else {
    builder.disable_dictionary();
  }
  if (statistics) {
    builder.enable_statistics();
  } else {
    builder.disable_statistics();
  }
  return builder.write_batch_size(writeBatchSize)->build();
}

}  // namespace kyr::parquet
