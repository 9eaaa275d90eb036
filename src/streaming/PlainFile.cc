#include "streaming/PlainFile.h"

#include <arrow/api.h>
#include <arrow/io/interfaces.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "platform/DiskFile.h"

namespace kyr::parquet {

namespace {

// Gathers small pieces. Arrow is told of a failure in its way; throwFailure() tells the rest.
class DiskSink final : public ::arrow::io::OutputStream {
 public:
  explicit DiskSink(DiskFile& file) : file_(file) {}

  ::arrow::Status Write(const void* data, std::int64_t size) override {
    const std::string_view piece(static_cast<const char*>(data), static_cast<std::size_t>(size));
    try {
      if (piece.size() >= kGathered) {
        put({gathered_, piece});
      } else {
        gathered_ += piece;
        if (gathered_.size() >= kGathered) put({gathered_});
      }
      return ::arrow::Status::OK();
    } catch (const std::exception& error) {
      failure_ = std::current_exception();
      return ::arrow::Status::IOError(error.what());
    }
  }
  ::arrow::Result<std::int64_t> Tell() const override {
    return static_cast<std::int64_t>(written_ + gathered_.size());
  }
  ::arrow::Status Close() override {
    closed_ = true;
    return ::arrow::Status::OK();
  }
  bool closed() const override { return closed_; }

  void finish() { put({gathered_}); }
  void throwFailure() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  static constexpr std::size_t kGathered = std::size_t{64} << 10U;

  void put(const std::vector<std::string_view>& pieces) {
    file_.writeAt(written_, pieces);
    for (const std::string_view piece : pieces) written_ += piece.size();
    gathered_.clear();
  }

  DiskFile& file_;
  std::string gathered_;
  std::uint64_t written_ = 0;
  std::exception_ptr failure_;
  bool closed_ = false;
};

}  // namespace

void writePlainFile(const std::filesystem::path& path, const FileLayout& layout,
                    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                    const std::vector<std::shared_ptr<::arrow::Table>>& rowGroups, bool sync) {
  DiskFile file(path, DiskFile::Mode::createNew);
  const auto sink = std::make_shared<DiskSink>(file);
  std::vector<const ::arrow::Table*> tables;
  for (const auto& rows : rowGroups) tables.push_back(rows.get());
  try {
    layout.write(sink, keyValues, tables);
    sink->finish();
    if (sync) file.syncData();
    file.close();
  } catch (const std::exception& error) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    sink->throwFailure();
    if (dynamic_cast<const std::system_error*>(&error) != nullptr) throw;
    throw std::runtime_error(path.string() + ": " + error.what());
  }
}

}  // namespace kyr::parquet
