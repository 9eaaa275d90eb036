#include "CsvReader.h"

#include <arrow/api.h>
#include <arrow/csv/options.h>
#include <arrow/csv/reader.h>
#include <arrow/io/memory.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Errors.h"
#include "Interrupt.h"
#include "Text.h"

namespace kyr::tool {

namespace {

using Columns = std::vector<std::shared_ptr<::arrow::ChunkedArray>>;

// Tells how much of a buffer was read.
class ProgressStream : public ::arrow::io::InputStream {
 public:
  ProgressStream(std::shared_ptr<::arrow::Buffer> buffer, Progress progress)
      : size_(static_cast<double>(buffer->size())),
        reader_(std::move(buffer)),
        progress_(std::move(progress)) {}

  ::arrow::Status Close() override { return reader_.Close(); }
  bool closed() const override { return reader_.closed(); }
  ::arrow::Result<std::int64_t> Tell() const override { return reader_.Tell(); }

  ::arrow::Result<std::int64_t> Read(std::int64_t bytes, void* out) override {
    ARROW_RETURN_NOT_OK(tellProgress());
    return reader_.Read(bytes, out);
  }

  ::arrow::Result<std::shared_ptr<::arrow::Buffer>> Read(std::int64_t bytes) override {
    ARROW_RETURN_NOT_OK(tellProgress());
    return reader_.Read(bytes);
  }

 private:
  ::arrow::Status tellProgress() {
    if (isInterrupted()) return ::arrow::Status::Cancelled("interrupted");
    if (progress_) progress_(static_cast<double>(reader_.Tell().ValueOr(0)) / size_);
    return ::arrow::Status::OK();
  }

  double size_;
  ::arrow::io::BufferReader reader_;
  Progress progress_;
};

::arrow::csv::ReadOptions readOptions(const CsvText& text) {
  auto options = ::arrow::csv::ReadOptions::Defaults();
  // Places instead of names: names may occur twice.
  for (std::size_t i = 0; i < text.header().size(); ++i) {
    options.column_names.push_back(std::to_string(i));
  }
  // Arrow wants a row to be in two blocks at most.
  constexpr std::size_t kLargest = std::numeric_limits<std::int32_t>::max();
  const std::size_t longest = std::min(text.longestRow() + 2, kLargest);
  options.block_size = std::max(options.block_size, static_cast<std::int32_t>(longest));
  return options;
}

::arrow::csv::ParseOptions parseOptions(const CsvText& text) {
  auto options = ::arrow::csv::ParseOptions::Defaults();
  // Slower, so only where it can happen.
  options.newlines_in_values = text.hasQuotes();
  return options;
}

::arrow::csv::ConvertOptions convertOptions(const std::set<std::size_t>& asText) {
  auto options = ::arrow::csv::ConvertOptions::Defaults();
  options.null_values = {""};
  for (const std::size_t column : asText) {
    options.column_types[std::to_string(column)] = ::arrow::binary();
  }
  return options;
}

[[noreturn]] void throwUnreadable(const CsvText& text, const ::arrow::Status& status) {
  stopIfInterrupted();
  const auto row = text.raggedRow();
  if (!row) throw std::runtime_error(text.path() + " cannot be read: " + status.message());
  throw std::runtime_error(
      fmt::format("{}, line {}: {}, but the header has {}", text.path(), row->line,
                  counted(static_cast<std::uint64_t>(row->cells), "cell"), text.header().size()));
}

Columns read(const CsvText& text, const ::arrow::csv::ConvertOptions& convert,
             const Progress& progress) {
  const auto table = [&]() -> ::arrow::Result<std::shared_ptr<::arrow::Table>> {
    ARROW_ASSIGN_OR_RAISE(
        const auto reader,
        ::arrow::csv::TableReader::Make(::arrow::io::default_io_context(),
                                        std::make_shared<ProgressStream>(text.body(), progress),
                                        readOptions(text), parseOptions(text), convert));
    return reader->Read();
  }();
  if (!table.ok()) throwUnreadable(text, table.status());
  return (*table)->columns();
}

}  // namespace

Columns readColumns(const CsvText& text, const std::set<std::size_t>& asText,
                    const Progress& progress) {
  if (text.hasRows()) return read(text, convertOptions(asText), progress);
  // Arrow takes no empty body for a table.
  return Columns(text.header().size(), check(::arrow::ChunkedArray::MakeEmpty(::arrow::null())));
}

std::map<std::size_t, std::shared_ptr<::arrow::ChunkedArray>> readTexts(
    const CsvText& text, const std::set<std::size_t>& columns) {
  std::map<std::size_t, std::shared_ptr<::arrow::ChunkedArray>> texts;
  if (columns.empty()) return texts;
  auto options = convertOptions(columns);
  for (const std::size_t column : columns) {
    options.include_columns.push_back(std::to_string(column));
  }
  const Columns cells = read(text, options, {});
  for (const std::size_t column : columns) texts[column] = cells[texts.size()];
  return texts;
}

}  // namespace kyr::tool
