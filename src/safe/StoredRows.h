#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>

#include "kyr/parquet/ColumnNames.h"
#include "safe/BatchDigests.h"
#include "safe/ContentName.h"
#include "safe/ContentRows.h"
#include "safe/OpenFiles.h"
#include "schema/ContentSummary.h"

namespace kyr::parquet {

/// Rows in a finished Parquet file. The file is opened when it is first needed and stays open as
/// long as the store has descriptors for it; while it is open, it is read whatever becomes of its
/// name.
///
/// Two kinds of files are told apart:
/// - A file that the pool has written belongs to the content. Nobody changes it.
/// - A file that was found in the pool's directory belongs to the content, too, but other pools may
///   append to it, or replace it. All rows are read from what has the name then; ranges of rows are
///   read from the file that is open.
///
/// A file that nobody should have changed, but somebody did, is a std::runtime_error naming it when
/// it is opened again.
class StoredRows final : public ContentRows {
 public:
  /// What is known of rows without looking at the file.
  struct Shape {
    SampleSchema schema;
    std::size_t width = 1;  ///< bytes of an element
    std::uint64_t count = 0;
  };

  /// Over a file that the pool has written.
  StoredRows(ContentName& name, OwnedFile file, Shape shape, BatchDigests digests,
             ContentSummary summary);
  /// Over the file of the content's id, which was found in the pool's directory.
  explicit StoredRows(ContentName& name);

  /// Writes rows to a new file of the content, and returns them.
  /// \param rows  all that \p shape tells of
  static std::unique_ptr<StoredRows> write(ContentName& name, const RowSlice& rows, Shape shape,
                                           const AskedCodec& codec);

  std::uint64_t count() override { return shape().count; }
  const SampleSchema& schema() override { return shape().schema; }
  std::size_t width() override { return shape().width; }
  AskedCodec askedCodec() override { return codec(); }
  ::arrow::Compression::type codec() override { return file()->rows().codec(columnNames::data); }
  std::optional<HeldRows> inMemory(std::uint64_t /*from*/, std::uint64_t /*to*/) override {
    return std::nullopt;
  }
  Tables read(std::uint64_t from, std::uint64_t to) override;
  bool readTimes(std::vector<double>& times) override;
  bool readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                    std::vector<int>& sizes) override;
  const BatchDigests* digests() const override { return &digests_; }
  const ContentSummary* summary() const override {
    return origin_ == Origin::written ? &summary_ : nullptr;
  }
  bool hasOwnFile() const override { return true; }
  bool copyFile(const std::filesystem::path& path, bool sync) override;

 private:
  enum class Origin { written, found };

  const Shape& shape();
  std::filesystem::path path() const { return owned_.path(); }
  // The file, which is opened if it is not open.
  std::shared_ptr<FinishedFile> file();
  // The file that has the name of a found one now; else as file().
  std::shared_ptr<FinishedFile> currentFile();
  void checkReopened(const FinishedFile& file) const;

  ContentName& name_;
  Origin origin_;
  OwnedFile owned_;
  std::optional<Shape> shape_;      // none before somebody asks for it
  std::optional<FileState> state_;  // when the file was opened last
  BatchDigests digests_;
  ContentSummary summary_;  // of rows that were written
  OpenFiles::Handle handle_;
};

/// Writes rows to a new Parquet file with the batches that a content has.
void writeRows(ContentName& name, const std::filesystem::path& path, const RowSlice& rows,
               const SampleSchema& schema, const AskedCodec& codec, bool sync);

}  // namespace kyr::parquet
