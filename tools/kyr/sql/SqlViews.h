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
/// A row is a pair of a time and a sample. A signal with times alone, or samples alone, has NULL in
/// place of what it lacks. What several recordings have alike is one view.
class SqlViews {
 public:
  /// \param run  what the recording is called
  /// \param folder  where it is
  /// \param signals  those that are wanted
  /// \throws std::runtime_error if the recording is not finished, or SQL cannot express a name or
  ///         the path
  void add(const std::string& run, const std::string& folder,
           const recording::RecordingReader& reader,
           const std::vector<recording::SignalInfo>& signals);

  /// The statements.
  /// \param query  what will be asked: views that it does not name are left out. All views if it is
  ///        empty or asks for the names of views
  std::string text(const std::string& query) const;

 private:
  class Run;

  struct Column {
    std::string name;
    std::string type;  // of SQL
  };

  // The rows of several queries, one after the other.
  struct View {
    std::string name;
    std::vector<Column> columns;
    std::vector<std::string> queries;
    bool isMixed = false;  // whether the types of the columns differ from those of some query

    void add(const std::vector<Column>& given, std::string query);
    std::string text() const;
  };

  View& viewOf(const std::string& wanted, const std::string& kind);
  void addSignal(const Run& run, const recording::SignalInfo& signal, const std::string& table);
  void addPackedSamples(const Run& run, const std::vector<recording::SignalInfo>& signals);
  std::map<int, std::string> addTables(const Run& run,
                                       const std::vector<recording::SignalInfo>& signals);

  std::vector<View> views_;                                                   // of signals
  std::map<std::pair<std::string, std::string>, std::size_t> viewOfSignals_;  // by name and kind
  std::set<std::string> viewNames_;                                           // in lower case
  std::vector<View> tables_;
  std::map<std::string, std::size_t> tableOf_;  // by names and kinds of the columns
  View samples_{"samples",
                {{"run", "VARCHAR"},
                 {"id", "INTEGER"},
                 {"signal", "VARCHAR"},
                 {"time", "DOUBLE"},
                 {"value", "DOUBLE"}},
                {}};
  std::vector<std::string> signals_;  // rows of the table
};

}  // namespace kyr::tool
