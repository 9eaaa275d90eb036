#include "print/RowFormat.h"

#include <algorithm>
#include <utility>

#include "cli/GivenAttributes.h"
#include "cli/Text.h"

namespace kyr::tool {

namespace {

// Numbers that JSON does not have are texts.
std::string jsonCell(const std::string& cell, CellType type) {
  const bool isNumber = type == CellType::number && cell.find_first_of("ni") == std::string::npos;
  return isNumber || type == CellType::truth ? cell : jsonText(cell);
}

// An object for each row: in an array, or each on a line of its own.
class JsonRows : public RowFormat {
 public:
  explicit JsonRows(bool isArray) : isArray_(isArray) {}

  void header(Output& out, const std::vector<std::string>& names,
              const std::vector<CellType>& types) override {
    for (const std::string& name : names) names_.push_back(jsonText(name));
    types_ = types;
    if (isArray_) out.print("[");
  }

  void row(Output& out, const std::vector<std::optional<std::string>>& cells) override {
    if (isArray_) out.print("{}", isFirst_ ? "\n" : ",\n");
    isFirst_ = false;
    const char* separator = "";
    out.print("{{");
    for (std::size_t i = 0; i < cells.size(); ++i) {
      if (!cells[i]) continue;
      out.print("{}{}:{}", separator, names_[i], jsonCell(*cells[i], types_[i]));
      separator = ",";
    }
    out.print("}}");
    if (!isArray_) out.endRow();
    out.flushIfFull();
  }

  void end(Output& out) override {
    if (isArray_) out.print("\n]\n");
  }

 private:
  bool isArray_;
  bool isFirst_ = true;
  std::vector<std::string> names_;
  std::vector<CellType> types_;
};

// Columns below each other. They are as wide as the first rows are.
class AlignedRows : public RowFormat {
 public:
  void header(Output& /*out*/, const std::vector<std::string>& names,
              const std::vector<CellType>& types) override {
    types_ = types;
    widths_.assign(names.size(), 0);
    add({names.begin(), names.end()});
  }

  void row(Output& out, const std::vector<std::optional<std::string>>& cells) override {
    constexpr std::size_t kMeasured = 1000;
    if (isMeasured_) return print(out, cells);
    add(cells);
    if (waiting_.size() > kMeasured) printWaiting(out);
  }

  void end(Output& out) override { printWaiting(out); }

 private:
  using Cells = std::vector<std::optional<std::string>>;

  void add(const Cells& cells) {
    Cells& line = waiting_.emplace_back();
    for (std::size_t i = 0; i < cells.size(); ++i) {
      line.emplace_back(singleLine(cells[i].value_or("")));
      widths_[i] = std::max(widths_[i], displayWidth(*line.back()));
    }
  }

  void printWaiting(Output& out) {
    isMeasured_ = true;
    for (const Cells& line : std::exchange(waiting_, {})) print(out, line);
  }

  void print(Output& out, const Cells& cells) const {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const std::string cell = singleLine(cells[i].value_or(""));
      if (i > 0) line += "  ";
      const bool isLeft = types_[i] == CellType::text;
      line += fmt::format(fmt::runtime(isLeft ? "{:<{}}" : "{:>{}}"), cell, widths_[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out.print("{}", line);
    out.endRow();
  }

  std::vector<CellType> types_;
  std::vector<std::size_t> widths_;
  std::vector<Cells> waiting_;
  bool isMeasured_ = false;
};

}  // namespace

std::unique_ptr<RowFormat> rowFormatCalled(std::string_view name) {
  if (name == "json") return std::make_unique<JsonRows>(/*isArray=*/true);
  if (name == "ndjson") return std::make_unique<JsonRows>(/*isArray=*/false);
  if (name == "table") return std::make_unique<AlignedRows>();
  return nullptr;
}

}  // namespace kyr::tool
