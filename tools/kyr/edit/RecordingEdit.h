#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/WorkingFolder.h"

namespace kyr::tool {

/// A new recording that is made of others. Rows that are not changed stay in their files, which the
/// new recording links.
class RecordingEdit {
 public:
  /// Begins with some signals of the recording \p folder.
  RecordingEdit(const std::string& folder, const std::vector<int>& ids);

  /// Begins with nothing.
  /// \param beside  folder of the new recording
  /// \param packBelow  contents of fewer bytes will be packed
  RecordingEdit(const std::string& beside, std::size_t signals, std::size_t packBelow);

  /// Adds a signal without rows. If its id is taken, it gets another.
  /// \return its id
  int add(const recording::SignalInfo& signal);

  /// Replaces the rows of a signal by some rows of itself.
  void keep(const recording::RecordingReader& reader, int id,
            const std::vector<recording::RowRange>& ranges);

  /// Appends rows of a signal of another recording.
  /// \param seconds  what is added to their times
  void append(const recording::RecordingReader& reader, int from, const recording::RowRange& rows,
              int to, double seconds);

  /// Saves the recording.
  void save(const std::string& folder, const recording::SaveOptions& options);

 private:
  parquet::SignalPool& pool() { return base_ ? base_->pool() : *pool_; }

  std::optional<recording::Recording> base_;
  std::optional<recording::WorkingFolder> working_;
  std::unique_ptr<parquet::SignalPool> pool_;
  std::map<int, recording::SignalDescription> descriptions_;
};

}  // namespace kyr::tool
