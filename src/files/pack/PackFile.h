#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "files/InputFile.h"
#include "files/RowGroupCache.h"
#include "platform/DiskFile.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// The column of a pack that says to which storage id each row belongs.
extern const std::string kPackColumn;

/// A Parquet file with many contents of one schema, one after the other, opened to read.
///
/// Failures are those of InputFile.
class PackFile {
 public:
  /// \param file  stays open, so that nothing depends on its name
  PackFile(std::shared_ptr<const ByteSource> file, std::shared_ptr<RowGroupCache> cache);
  /// \param isOwn  whether the file is deleted with the object. Its descriptor is given back
  ///         whenever nothing is read then
  PackFile(std::shared_ptr<DiskFile> file, bool isOwn, std::shared_ptr<RowGroupCache> cache);
  ~PackFile();
  PackFile(const PackFile&) = delete;
  PackFile& operator=(const PackFile&) = delete;

  std::uint64_t rows() const { return file_.rows(); }
  /// The columns of the contents, as schemaBuilder makes them.
  const SampleSchema& schema() const { return schema_; }
  /// Bytes of an element.
  std::size_t width() const { return width_; }
  ::arrow::Compression::type codec() const;
  const InputFile& file() const { return file_; }

  /// Rows [first, first + count), which stay as they are as long as their keeper lives.
  /// \throws std::runtime_error also if they do not all belong to the content \p storageId
  HeldRows read(int storageId, std::uint64_t first, std::uint64_t count);

 private:
  [[noreturn]] void fail(const std::string& what) const;
  void readSchema();
  HeldRows readGroup(int storageId, std::size_t index, std::size_t from, std::size_t count);
  std::shared_ptr<const DecodedGroup> group(std::size_t index);
  void decode(std::size_t index, DecodedGroup& group);

  std::shared_ptr<DiskFile> own_;  // a file that is deleted with the object
  InputFile file_;
  std::shared_ptr<RowGroupCache> cache_;
  SampleSchema schema_;
  std::size_t width_ = 1;
};

}  // namespace kyr::parquet
