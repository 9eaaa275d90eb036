#include "recording/TimeSpans.h"

#include <arrow/type.h>

#include <algorithm>
#include <vector>

#include "platform/DiskFile.h"

namespace kyr::recording {

void noteTime(std::optional<TimeSpan>& span, double time) {
  if (time != time) return;
  if (!span) span = TimeSpan{time, time};
  span->from = std::min(span->from, time);
  span->to = std::max(span->to, time);
}

std::optional<TimeSpan> spanOf(parquet::InputFile& file, const std::string& column) {
  constexpr std::uint64_t kPieceRows = 65'536;
  std::optional<TimeSpan> span;
  if (file.schema()->GetFieldByName(column)->type()->id() != ::arrow::Type::DOUBLE) return span;
  std::vector<double> times(static_cast<std::size_t>(std::min(file.rows(), kPieceRows)));
  for (std::uint64_t row = 0; row < file.rows(); row += times.size()) {
    times.resize(
        static_cast<std::size_t>(std::min<std::uint64_t>(times.size(), file.rows() - row)));
    file.readNumbers(column, row, times.size(), reinterpret_cast<char*>(times.data()));
    for (const double time : times) noteTime(span, time);
  }
  return span;
}

std::unique_ptr<parquet::InputFile> openFile(const std::filesystem::path& path) {
  return std::make_unique<parquet::InputFile>(
      std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly));
}

}  // namespace kyr::recording
