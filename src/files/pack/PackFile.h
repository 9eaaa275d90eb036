#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/arrow/reader.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/DiskFile.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// Column of a pack that says to which storage id each row belongs.
extern const std::string kPackColumn;

/// A row group of a pack in memory.
struct PackGroup {
  RowStore rows;
  std::vector<std::int32_t> ids;  ///< of each row
};

class PackFile;

/// The row groups that were read last, of all packs that share the object.
class PackCache {
 public:
  std::shared_ptr<const PackGroup> find(const PackFile* pack, int group);
  void put(const PackFile* pack, int group, std::shared_ptr<PackGroup> rows);
  void forget(const PackFile* pack);
  /// A row group of \p pack that is no longer needed, whose memory can be used again; may be null.
  std::shared_ptr<PackGroup> takeSpare(const PackFile* pack);

 private:
  static constexpr std::size_t kGroups = 4;

  struct Entry {
    const PackFile* pack;
    int group;
    std::shared_ptr<PackGroup> rows;
  };
  std::list<Entry> entries_;  // the last used first
};

/// A Parquet file with many contents of one schema, one after the other, opened to read.
///
/// Failures are std::runtime_error naming the file.
class PackFile {
 public:
  /// \param file  stays open, so that nothing depends on its name; or \p isOwn
  /// \param isOwn  whether the file is deleted with the object. Its descriptor is given back
  ///         whenever nothing is read then
  PackFile(std::shared_ptr<DiskFile> file, bool isOwn, std::shared_ptr<PackCache> cache);
  ~PackFile();
  PackFile(const PackFile&) = delete;
  PackFile& operator=(const PackFile&) = delete;

  std::uint64_t rows() const { return starts_.back(); }
  /// Of the contents, as schemaBuilder makes it.
  const SampleSchema& schema() const { return schema_; }
  /// Bytes of an element.
  std::size_t width() const { return width_; }
  ::arrow::Compression::type codec() const { return codec_; }

  /// Rows [first, first + count), which are kept as long as their keeper lives.
  /// \throws std::runtime_error also if they are not all of the content \p storageId
  HeldRows read(int storageId, std::uint64_t first, std::uint64_t count);

 private:
  [[noreturn]] void fail(const std::string& what) const;
  void readSchema();
  std::shared_ptr<const PackGroup> group(int index);
  std::shared_ptr<PackGroup> decode(int index);
  void decodeRows(int index, PackGroup& group);

  std::shared_ptr<DiskFile> file_;
  bool isOwn_;
  std::shared_ptr<PackCache> cache_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
  SampleSchema schema_;
  std::size_t width_ = 1;
  ::arrow::Compression::type codec_;
  int idLeaf_ = 0;                           // leaf column of the ids, the last one
  std::vector<std::uint64_t> starts_ = {0};  // of row groups, and where the last one ends
};

}  // namespace kyr::parquet
