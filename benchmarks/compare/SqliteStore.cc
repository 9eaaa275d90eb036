#include <sqlite3.h>

#include "Store.h"

/// SQLite without a journal: a row for each step of appended signals, a blob for each whole one.
namespace kyr::compare {

class SqliteStore : public Store {
 public:
  using Store::Store;

  bool supports(const Workload& workload) const override {
    return workload.name == "W3" || workload.name == "W4";
  }

  void write(const Workload& workload, const Data& data) override {
    open();
    execute("PRAGMA journal_mode=OFF");
    execute("PRAGMA synchronous=OFF");
    execute("BEGIN");
    if (workload.isWhole()) {
      writeBlobs(workload, data);
    } else {
      writeRows(workload, data);
    }
    execute("COMMIT");
    sqlite3_close(database_);
  }

  void read(const Workload& workload, ReadBack& values) override {
    open();
    if (workload.isWhole()) {
      readBlobs(workload, values);
    } else {
      readRows(workload, values);
    }
  }

 private:
  void check(int result) const {
    if (result != SQLITE_OK && result != SQLITE_DONE && result != SQLITE_ROW) {
      throw std::runtime_error(sqlite3_errmsg(database_));
    }
  }

  void open() { check(sqlite3_open(stored("signals.db").c_str(), &database_)); }

  void execute(const std::string& sql) const {
    check(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr));
  }

  sqlite3_stmt* prepare(const std::string& sql) const {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr));
    return statement;
  }

  void writeBlobs(const Workload& workload, const Data& data) const {
    execute("CREATE TABLE signals (id INTEGER PRIMARY KEY, samples BLOB)");
    sqlite3_stmt* insert = prepare("INSERT INTO signals VALUES (?, ?)");
    for (std::size_t i = 0; i < data.columns(); ++i) {
      const std::size_t width = i == 0 ? sizeof(double) : workload.sampleSize();
      check(sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(i)));
      check(sqlite3_bind_blob64(insert, 2, data.column(i), workload.rows * width, SQLITE_STATIC));
      check(sqlite3_step(insert));
      check(sqlite3_reset(insert));
    }
    check(sqlite3_finalize(insert));
  }

  void readBlobs(const Workload& workload, ReadBack& values) const {
    sqlite3_stmt* select = prepare("SELECT samples FROM signals ORDER BY id");
    for (std::size_t i = 0; i <= workload.signals && sqlite3_step(select) == SQLITE_ROW; ++i) {
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(select, 0));
      Bytes& target = i == 0 ? values.time : values.signals[i - 1];
      std::memcpy(target.allocate(size), sqlite3_column_blob(select, 0), size);
    }
  }

  void writeRows(const Workload& workload, const Data& data) const {
    std::string names = "time REAL";
    std::string values = "?";
    for (std::size_t i = 1; i < data.columns(); ++i) {
      names += ", s" + std::to_string(i) + " REAL";
      values += ", ?";
    }
    execute("CREATE TABLE steps (" + names + ")");
    sqlite3_stmt* insert = prepare("INSERT INTO steps VALUES (" + values + ")");
    forEachChunk(workload, data, [&](std::size_t i, const char* row, std::size_t) {
      sqlite3_bind_double(insert, static_cast<int>(i) + 1, *reinterpret_cast<const double*>(row));
      if (i + 1 < data.columns()) return;
      check(sqlite3_step(insert));
      check(sqlite3_reset(insert));
    });
    check(sqlite3_finalize(insert));
  }

  void readRows(const Workload& workload, ReadBack& values) const {
    std::vector<double*> next;
    const std::size_t size = workload.rows * sizeof(double);
    next.push_back(reinterpret_cast<double*>(values.time.allocate(size)));
    for (Bytes& signal : values.signals) {
      next.push_back(reinterpret_cast<double*>(signal.allocate(size)));
    }
    sqlite3_stmt* select = prepare("SELECT * FROM steps ORDER BY rowid");
    for (std::size_t row = 0; row < workload.rows && sqlite3_step(select) == SQLITE_ROW; ++row) {
      for (std::size_t i = 0; i < next.size(); ++i) {
        next[i][row] = sqlite3_column_double(select, static_cast<int>(i));
      }
    }
  }

  sqlite3* database_ = nullptr;
};

namespace {

[[maybe_unused]] const bool kAdded = addStore<SqliteStore>("sqlite");

}  // namespace

}  // namespace kyr::compare
