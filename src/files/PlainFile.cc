#include "files/PlainFile.h"

#include <arrow/api.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "files/FileSink.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

void writePlainFile(const std::filesystem::path& path, const FileLayout& layout,
                    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                    const std::vector<std::shared_ptr<::arrow::Table>>& rowGroups, bool sync) {
  DiskFile file(path, DiskFile::Mode::createNew);
  const auto sink = std::make_shared<FileSink>(file);
  std::vector<const ::arrow::Table*> tables;
  tables.reserve(rowGroups.size());
  for (const auto& rows : rowGroups) tables.push_back(rows.get());
  try {
    layout.write(sink, keyValues, tables);
    sink->finish();
    if (sync) file.syncData();
    file.close();
  } catch (const std::exception& error) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    sink->throwFailure();
    if (dynamic_cast<const std::system_error*>(&error) != nullptr) throw;
    throw std::runtime_error(path.string() + ": " + error.what());
  }
}

}  // namespace kyr::parquet
