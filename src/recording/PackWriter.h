#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/compression.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/recording/RecordingInfo.h"
#include "platform/BackgroundWork.h"
#include "schema/RowSlice.h"
#include "schema/SampleLayout.h"

namespace kyr::recording {

/// Writes contents into the packs of a recording, each into one of its schema and codec. A pack is
/// a plain Parquet file; contents of one codec and schema fill one after the other.
///
/// Failures are exceptions that name the file.
class PackWriter {
 public:
  /// \param storage  folder of the packs
  /// \param startsSync  whether the disk begins to write packs early, because they will be synced
  PackWriter(std::filesystem::path storage, parquet::SafeStorage::Encodings encodings,
             bool startsSync = false);
  ~PackWriter();
  PackWriter(const PackWriter&) = delete;
  PackWriter& operator=(const PackWriter&) = delete;

  /// Adds the rows of the content of \p file, and notes there where they are.
  /// \param width  bytes of an element
  void add(FileInfo& file, const parquet::SampleSchema& schema, std::size_t width,
           ::arrow::Compression::type codec, const parquet::RowSlice& rows);

  /// Completes all packs.
  std::vector<PackInfo> finish();

 private:
  class Pack;
  using Kind = std::pair<std::string, int>;  // schema, codec

  void finish(std::shared_ptr<Pack> pack);

  std::filesystem::path storage_;
  parquet::SafeStorage::Encodings encodings_;
  bool startsSync_;
  std::map<Kind, std::shared_ptr<Pack>> open_;
  std::shared_ptr<Pack>* last_ = nullptr;  // in open_; of the content before
  std::shared_ptr<::arrow::Schema> lastSchema_;
  ::arrow::Compression::type lastCodec_{};
  int next_ = 0;
  std::vector<PackInfo> done_;  // changes in the tasks
  BackgroundWork tasks_;        // goes before what the tasks use
};

}  // namespace kyr::recording
