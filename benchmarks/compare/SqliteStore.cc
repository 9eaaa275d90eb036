#include <sqlite3.h>

#include <algorithm>

#include "Store.h"

namespace kyr::compare {

namespace {

class Database {
 public:
  explicit Database(const fs::path& file) { check(sqlite3_open(file.c_str(), &database_)); }
  ~Database() { sqlite3_close(database_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void check(int result) const {
    if (result != SQLITE_OK && result != SQLITE_DONE && result != SQLITE_ROW) {
      throw std::runtime_error(sqlite3_errmsg(database_));
    }
  }

  void execute(const std::string& sql) const {
    check(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr));
  }

  sqlite3_stmt* prepare(const std::string& sql) const {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr));
    return statement;
  }

 private:
  sqlite3* database_ = nullptr;
};

}  // namespace

/// SQLite without a journal: a row for each step of appended signals, a blob for each whole one.
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
    database_.reset();
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
  void open() { database_ = std::make_unique<Database>(stored("signals.db")); }
  void check(int result) const { database_->check(result); }
  void execute(const std::string& sql) const { database_->execute(sql); }
  sqlite3_stmt* prepare(const std::string& sql) const { return database_->prepare(sql); }

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

  std::unique_ptr<Database> database_;
};

/// A live recording: a row for each step, a transaction for each flush. A table has no more than
/// 2,000 columns, so that many signals take several tables. Only the first has the times.
class SqliteLiveStore : public LiveStore {
 public:
  SqliteLiveStore(const fs::path& folder, bool syncs) : LiveStore(folder), syncs_(syncs) {}

  void start(const Workload& workload) override {
    open(workload);
    database_->execute("PRAGMA page_size=65536");
    database_->execute(std::string("PRAGMA synchronous=") + (syncs_ ? "FULL" : "OFF"));
    for (std::size_t at = 0; at < columns_; at += kTableColumns) {
      std::string names;
      std::string values;
      for (std::size_t i = at; i < tableEnd(at); ++i) {
        names += (i > at ? ", " : "") + column(i) + " REAL";
        values += i > at ? ", ?" : "?";
      }
      database_->execute("CREATE TABLE " + table(at) + " (" + names + ")");
      inserts_.push_back(
          database_->prepare("INSERT INTO " + table(at) + " VALUES (" + values + ")"));
    }
    database_->execute("BEGIN");
  }

  void appendStep(double time, const double* samples) override {
    for (std::size_t i = 0; i < columns_; ++i) {
      sqlite3_stmt* insert = inserts_[i / kTableColumns];
      const int parameter = static_cast<int>(i % kTableColumns) + 1;
      sqlite3_bind_double(insert, parameter, i == 0 ? time : samples[i - 1]);
      if (i + 1 < columns_ && (i + 1) % kTableColumns != 0) continue;
      database_->check(sqlite3_step(insert));
      database_->check(sqlite3_reset(insert));
    }
  }

  void flush() override {
    database_->execute("COMMIT");
    database_->execute("BEGIN");
  }

  void finish() override {
    database_->execute("COMMIT");
    for (sqlite3_stmt* insert : inserts_) sqlite3_finalize(insert);
    database_.reset();
  }

  void read(const Workload& workload, ReadBack& values) override {
    open(workload);
    const std::size_t size = workload.rows * sizeof(double);
    std::vector<double*> next{reinterpret_cast<double*>(values.time.allocate(size))};
    for (Bytes& signal : values.signals) {
      next.push_back(reinterpret_cast<double*>(signal.allocate(size)));
    }
    for (std::size_t at = 0; at < columns_; at += kTableColumns) {
      sqlite3_stmt* select = database_->prepare("SELECT * FROM " + table(at) + " ORDER BY rowid");
      for (std::size_t row = 0; row < workload.rows && sqlite3_step(select) == SQLITE_ROW; ++row) {
        for (std::size_t i = at; i < tableEnd(at); ++i) {
          next[i][row] = sqlite3_column_double(select, static_cast<int>(i - at));
        }
      }
      sqlite3_finalize(select);
    }
  }

  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    if (!reader_) reader_ = std::make_unique<Database>(stored("signals.db"));
    auto* next = reinterpret_cast<double*>(values.allocate(count * sizeof(double)));
    sqlite3_stmt* select = reader_->prepare(
        "SELECT " + column(signal + 1) + " FROM " + table(signal + 1) + " WHERE rowid > " +
        std::to_string(from) + " AND rowid <= " + std::to_string(from + count) + " ORDER BY rowid");
    while (sqlite3_step(select) == SQLITE_ROW) *next++ = sqlite3_column_double(select, 0);
    sqlite3_finalize(select);
  }

 private:
  static constexpr std::size_t kTableColumns = 1'000;

  void open(const Workload& workload) {
    database_ = std::make_unique<Database>(stored("signals.db"));
    columns_ = workload.signals + 1;
  }

  std::size_t tableEnd(std::size_t at) const { return std::min(at + kTableColumns, columns_); }
  static std::string column(std::size_t i) { return "s" + std::to_string(i); }
  static std::string table(std::size_t i) { return "steps" + std::to_string(i / kTableColumns); }

  bool syncs_;
  std::size_t columns_ = 0;
  std::unique_ptr<Database> database_;
  std::unique_ptr<Database> reader_;
  std::vector<sqlite3_stmt*> inserts_;
};

namespace {

[[maybe_unused]] const bool kAdded[] = {
    addStore<SqliteStore>("sqlite"),
    addStore<SqliteLiveStore>("sqlite", false),
    addStore<SqliteLiveStore>("sqlite:sync", true),
};

}  // namespace

}  // namespace kyr::compare
