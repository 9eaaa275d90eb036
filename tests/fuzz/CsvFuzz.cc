// CSV text in any dialect. Whole rows and single cells agree on where a row ends, and every column
// is read as numbers or refused by an exception.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvTable.h"
#include "csv/CsvTokenizer.h"

namespace {

using namespace kyr::tool;
namespace fs = std::filesystem;

CsvDialect dialectOf(std::uint8_t choice) {
  CsvDialect dialect;
  dialect.delimiter = ",;\t "[choice % 4];
  dialect.quote = (choice & 4U) != 0 ? '\'' : '"';
  dialect.decimalMark = (choice & 8U) != 0 && dialect.delimiter != ',' ? ',' : '.';
  if ((choice & 16U) != 0) dialect.commentPrefixes = {"#", "//"};
  return dialect;
}

void splitRows(std::string_view text, const CsvDialect& dialect) {
  CsvRows rows(text, dialect, 1);
  std::vector<std::string> cells;
  for (CsvRow row; rows.next(row);) {
    cells.clear();
    splitRow(row.text, dialect, cells);
    if (cells.size() != row.cells) std::abort();
  }
}

struct Nothing : SampleSink {
  void append(const CsvColumn&, const ColumnSamples&) override {}
  void drop(const CsvColumn&) override {}
};

// A file in memory, if the system has such a place. It is removed when the process ends.
class WorkingFile {
 public:
  WorkingFile() {
    const int file = ::mkstemp(name_.data());
    if (file < 0) std::abort();
    ::close(file);
  }
  ~WorkingFile() { ::unlink(name_.c_str()); }
  WorkingFile(const WorkingFile&) = delete;
  WorkingFile& operator=(const WorkingFile&) = delete;

  const std::string& name() const { return name_; }

 private:
  std::string name_ = fs::is_directory("/dev/shm") ? "/dev/shm/kyr-fuzz-XXXXXX" : "kyr-fuzz-XXXXXX";
};

void readTable(std::string_view text, const CsvDialect& dialect) {
  static const WorkingFile kFile;
  std::ofstream(kFile.name(), std::ios::binary) << text;
  CsvOptions options;
  options.delimiter = dialect.delimiter;
  options.quote = dialect.quote;
  options.decimal = dialect.decimalMark;
  options.ragged = dialect.commentPrefixes.empty() ? "pad" : "stop";
  try {
    CsvTable table(kFile.name(), options);
    Nothing sink;
    table.read(sink, [](double) {});
    table.checkTypes();
  } catch (const std::exception&) {
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size - 1);
  const CsvDialect dialect = dialectOf(data[size - 1]);
  splitRows(text, dialect);
  readTable(text, dialect);
  return 0;
}
