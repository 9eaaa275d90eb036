#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// Makes SQL by which DuckDB reads recordings where their files are:
///
/// - a view for each signal, under its name: run, time and value;
/// - the view "samples" of all scalar numbers, which become doubles: run, id, signal, time, value;
/// - a view for each time vector, "table_1" and so on: run, time, and a column for each signal, 500
///   of them at most;
/// - the table "signals": what the recordings say of each signal, and which views have it.
///
/// What several recordings have alike is one view.
class SqlViews {
 public:
  /// \param run  what the recording is called
  /// \param folder  where it is
  /// \param signals  those that are wanted
  /// \throws std::runtime_error if the recording is not finished, or SQL cannot tell a name
  void add(const std::string& run, const std::string& folder,
           const recording::RecordingReader& reader,
           const std::vector<recording::SignalInfo>& signals);

  /// The statements.
  /// \param query  what is to be asked: views that it does not name are left out. None if empty
  std::string text(const std::string& query) const;

 private:
  class Run;

  // The rows of several queries, one after the other.
  struct View {
    std::string name;
    std::vector<std::string> queries;
  };

  View& viewOf(const std::string& wanted, const std::string& kind);
  void addSignal(const Run& run, const recording::SignalInfo& signal, const std::string& table);
  void addPackedSamples(const Run& run, const std::vector<recording::SignalInfo>& signals);
  std::map<int, std::string> addTables(const Run& run,
                                       const std::vector<recording::SignalInfo>& signals);

  std::vector<View> views_;                                           // of signals
  std::map<std::string, std::pair<std::string, std::size_t>> kinds_;  // by name: kind, index
  std::vector<View> tables_;
  std::map<std::string, std::size_t> tableOf_;  // by the columns
  View samples_{"samples", {}};
  std::vector<std::string> signals_;  // rows of the table
};

}  // namespace kyr::tool
