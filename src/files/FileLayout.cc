#include "files/FileLayout.h"

#include <arrow/api.h>
#include <arrow/io/interfaces.h>
#include <parquet/arrow/schema.h>
#include <parquet/exception.h>

#include <algorithm>
#include <utility>

#include "files/NumberFile.h"
#include "files/TableWriter.h"
#include "files/pack/PackSchema.h"
#include "kyr/parquet/ColumnNames.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

using ::parquet::Encoding;

namespace {

// A page for each 65,536 values: large enough for any encoding, and small next to a row group.
constexpr PageSize kPages{65536, 1};

// Storage ids that stay the same for many rows are few runs of a dictionary's numbers. Others count
// up.
ColumnEncoding encodingOfIds(const ::arrow::ChunkedArray& column) {
  if (column.type()->id() == ::arrow::Type::RUN_END_ENCODED) return {Encoding::RLE_DICTIONARY};
  constexpr std::int64_t kMany = 8;
  const auto& ids = static_cast<const ::arrow::Int32Array&>(*column.chunk(0));
  const bool areRuns = ids.length() > kMany && ids.Value(0) == ids.Value(kMany - 1);
  return {areRuns ? Encoding::RLE_DICTIONARY : Encoding::DELTA_BINARY_PACKED};
}

}  // namespace

FileLayout::FileLayout(const ::arrow::Schema& schema,
                       std::shared_ptr<::parquet::WriterProperties> properties,
                       EncodingChoice choice)
    : schema_(schema.RemoveMetadata()),
      isPack_(isPackSchema(schema)),
      isFlat_((choice.encoding || isPack_) && schema.num_fields() == (isPack_ ? 2 : 1) &&
              isNumber(*schema.field(0)->type())),
      properties_(std::move(properties)),
      choice_(choice) {
  const auto stored =
      isFlat_ && !isPack_ ? ::arrow::schema({schema_->field(0)->WithNullable(false)}) : schema_;
  PARQUET_THROW_NOT_OK(::parquet::arrow::ToParquetSchema(stored.get(), *properties_, &columns_));
  areNumbers_ = isFlat_ || (choice.encoding && schema.num_fields() == 1 &&
                            columns_->num_columns() == 1 && isListOfNumbers(*columns_->Column(0)));
}

ColumnEncoding FileLayout::encodingFor(const ::arrow::Table& rows) const {
  const auto& defaults = properties_->default_column_properties();
  const bool hasDictionary = defaults.dictionary_enabled();
  const ColumnEncoding asTold{hasDictionary ? Encoding::RLE_DICTIONARY : Encoding::PLAIN,
                              defaults.compression()};
  const auto samples = rows.GetColumnByName(columnNames::data);
  if (!choice_.encoding || !samples || samples->num_chunks() == 0) return asTold;
  return chooseEncoding(*samples->chunk(0), choice_, defaults.compression(), hasDictionary);
}

void FileLayout::write(const std::shared_ptr<::arrow::io::OutputStream>& sink,
                       const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                       const RowGroups& rowGroups, std::optional<ColumnEncoding> encoding) const {
  std::vector<ColumnEncoding> encodings;
  for (std::size_t i = 0; i < rowGroups.size(); ++i) {
    const bool isAsBefore = i % kEncodingUses != 0;
    encodings.push_back(encoding     ? *encoding
                        : isAsBefore ? encodings.back()
                                     : encodingFor(*rowGroups[i]));
  }
  if (areNumbers_) {
    writeNumbers(sink, keyValues, rowGroups, encodings);
  } else {
    writeAny(sink, keyValues, rowGroups, encodings.empty() ? ColumnEncoding() : encodings.front());
  }
}

// The metadata have one codec for all chunks of a column. Row groups that do not want it store
// pages that are not compressed.
void FileLayout::writeNumbers(const std::shared_ptr<::arrow::io::OutputStream>& sink,
                              const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                              const RowGroups& rowGroups,
                              const std::vector<ColumnEncoding>& encodings) const {
  constexpr auto kNone = ::arrow::Compression::UNCOMPRESSED;
  const auto packed =
      std::find_if(encodings.begin(), encodings.end(),
                   [](const ColumnEncoding& encoding) { return encoding.codec != kNone; });
  ColumnEncoding ofFile = encodings.empty() ? ColumnEncoding() : encodings.front();
  if (packed != encodings.end()) ofFile.codec = packed->codec;

  NumberFile file(sink, *columns_, propertiesFor(ofFile), {kPages, /*marksAscending=*/true},
                  keyValues);
  for (std::size_t i = 0; i < rowGroups.size(); ++i) {
    std::vector<ColumnEncoding> ofColumns{encodings[i]};
    if (isPack_) ofColumns.push_back(encodingOfIds(*rowGroups[i]->column(1)));
    file.writeRowGroup(rowGroups[i]->columns(), ofColumns);
  }
  file.finish();
}

void FileLayout::writeAny(const std::shared_ptr<::arrow::io::OutputStream>& sink,
                          const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                          const RowGroups& rowGroups, const ColumnEncoding& encoding) const {
  const auto writer = arrowWriter(sink, schema_, *columns_, propertiesFor(encoding), keyValues);
  for (const ::arrow::Table* rows : rowGroups) {
    PARQUET_THROW_NOT_OK(writer->WriteTable(*rows, rows->num_rows()));
  }
  PARQUET_THROW_NOT_OK(writer->Close());
}

std::shared_ptr<::parquet::WriterProperties> FileLayout::propertiesFor(
    const ColumnEncoding& encoding) const {
  if (!choice_.encoding) return properties_;
  ::parquet::WriterProperties::Builder builder(*properties_);
  for (int i = 0; i < columns_->num_columns(); ++i) {
    if (columns_->GetColumnRoot(i)->name() != columnNames::data) continue;
    const auto path = columns_->Column(i)->path();
    builder.compression(path, encoding.codec);
    if (encoding.encoding != Encoding::RLE_DICTIONARY) {
      builder.disable_dictionary(path)->encoding(path, encoding.encoding);
    }
  }
  return builder.build();
}

}  // namespace kyr::parquet
