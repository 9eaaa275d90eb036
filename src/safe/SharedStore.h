#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/properties.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "files/ColumnEncoding.h"
#include "files/FileLayout.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/Path.h"
#include "schema/RowStore.h"
#include "storage/KnownTimes.h"

namespace kyr::parquet {

class PackFile;
class SharedStream;
class StoredRows;

/// Where a content lies in a pack file: its rows follow each other.
struct PackedRows {
  std::shared_ptr<PackFile> pack;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

/// A place where contents part: the row's number, and what comes there.
struct ForkKey {
  std::uint64_t row = 0;
  std::uint64_t low = 0;
  std::uint64_t high = 0;

  friend bool operator==(const ForkKey& a, const ForkKey& b) {
    return a.row == b.row && a.low == b.low && a.high == b.high;
  }
};

struct ForkKeyHash {
  std::size_t operator()(const ForkKey& key) const {
    return static_cast<std::size_t>(key.low ^ (key.row * 0x9E3779B97F4A7C15U));
  }
};

/// The streams that part from another one, or from nothing. Borrowed: a stream takes itself out.
using Forks = std::unordered_map<ForkKey, SharedStream*, ForkKeyHash>;

/// \throws std::invalid_argument naming a codec that Parquet files cannot be written with
void requireWritable(::arrow::Compression::type codec);

/// What the signals of a safe pool share: the directory with its ids, and all contents, each once.
class SharedStore {
 public:
  using Compression = std::optional<::arrow::Compression::type>;

  /// \param nextId  counts the ids of all stores of a pool; what is there already lies below it
  SharedStore(Path directory, const SafeStorage& options, std::shared_ptr<int> nextId);
  SharedStore(const SharedStore&) = delete;
  SharedStore& operator=(const SharedStore&) = delete;

  const Path& directory() const { return directory_; }
  const SafeStorage& options() const { return options_; }
  std::filesystem::path fileOf(int id) const;

  /// Never the same twice.
  int newId();
  /// From now on \p id is not given.
  void reserve(int id);

  /// The contents of a schema, by their first row.
  Forks& roots(const std::shared_ptr<::arrow::Schema>& schema);

  /// The schema of samples. The same object for the same arguments.
  /// \throws std::invalid_argument if there is none
  const SampleSchema& sampleSchema(KYRSignalCategory category, KYRSignalDataType type);

  /// How files of the schema are written.
  /// \param compression  what the signal asks for, if it does
  /// \throws std::invalid_argument if no file can be written with that
  const FileLayout& layout(const std::shared_ptr<::arrow::Schema>& schema,
                           const Compression& compression);

  /// The times that were read last of a file of one of the pool's signals.
  KnownTimes& recentTimes() { return times_; }

  /// The stream over the file \p id, if a signal has it already.
  std::shared_ptr<SharedStream> streamOf(int id) const;
  void note(int id, const std::shared_ptr<SharedStream>& stream);
  void forget(int id);

  /// A finished file, opened. The last few stay open.
  std::shared_ptr<StoredRows> stored(int id);

  /// Rows of a pack that the stream over \p id, when it is adopted, is over instead of a file.
  void offerPacked(int id, PackedRows rows) { packed_[id] = std::move(rows); }
  /// Empty if there are none.
  PackedRows takePacked(int id);
  void dropPacked() { packed_.clear(); }

  /// Whether a finished content of so many bytes may stay in memory.
  bool mayHold(std::size_t bytes) const {
    return bytes < options_.holdBelow && heldBytes_ + bytes <= options_.holdTotal;
  }
  void countHeld(std::size_t bytes) { heldBytes_ += bytes; }
  void countWritten(std::size_t bytes) { heldBytes_ -= bytes; }
  bool holdsAny() const { return heldBytes_ > 0; }

  /// A stream wrote something: sync all that did if that is due.
  void noteWrite(bool isNewFile);
  /// Sync what was written since the last time, the names of new files included.
  void sync();

  /// From now on no file is deleted.
  void keepFiles() { keepsFiles_ = true; }

  /// Deletes a file that no part has any more. Where files are kept, whoever keeps a list of them
  /// may have named it after the last flush, so it stays until there were two more.
  void removeFile(int id) noexcept;
  void noteFlush() noexcept;

  /// Calls \p visit with each stream that a signal has.
  void forEachStream(const std::function<void(SharedStream&)>& visit) const;

  /// Descriptors are few: whether one more file may stay open.
  bool mayStayOpen() const { return openFiles_ < maxOpenFiles_; }
  void countOpen(int change) { openFiles_ += change; }

 private:
  static constexpr std::size_t kMaxStored = 32;

  struct KnownLayout {
    std::shared_ptr<::arrow::Schema> schema;
    Compression compression;
    FileLayout layout;
  };

  std::shared_ptr<::parquet::WriterProperties> properties(const Compression& compression) const;
  // What files are free to choose beside them.
  EncodingChoice choice(const Compression& compression) const;

  Path directory_;
  SafeStorage options_;
  ParquetWriterOptions writerOptions_;
  std::shared_ptr<int> nextId_;
  std::unordered_map<std::string, Forks> roots_;
  // The roots of schemas that were asked for, which live as long as they are known here.
  std::unordered_map<std::shared_ptr<::arrow::Schema>, Forks*> rootsOf_;
  std::map<std::pair<KYRSignalCategory, KYRSignalDataType>, SampleSchema> sampleSchemas_;
  std::unordered_map<int, PackedRows> packed_;
  std::size_t heldBytes_ = 0;
  std::unordered_map<int, std::weak_ptr<SharedStream>> streams_;
  std::list<std::pair<int, std::shared_ptr<StoredRows>>> stored_;  // the last used first
  std::list<KnownLayout> layouts_;
  KnownTimes times_;
  bool keepsFiles_ = false;
  std::vector<int> condemned_;        // since the last flush
  std::vector<int> condemnedBefore_;  // between the two last ones
  int maxOpenFiles_;
  int openFiles_ = 0;
  bool hasNewFiles_ = false;
  std::chrono::steady_clock::time_point lastSync_ = std::chrono::steady_clock::now();
};

}  // namespace kyr::parquet
