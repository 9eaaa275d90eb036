#include "cli/Errors.h"

#include <fmt/format.h>
#include <parquet/exception.h>

#include <filesystem>
#include <new>
#include <system_error>

#include "cli/Interrupt.h"
#include "cli/Output.h"

namespace kyr::tool {

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr const char* kNoMemory = "there is not enough memory";

int fail(const std::string& message, int exitCode) {
  tell(message);
  return exitCode;
}

std::string textOf(const std::filesystem::filesystem_error& error) {
  if (error.path1().empty()) return error.what();
  return error.path1().string() + ": " + error.code().message();
}

}  // namespace

std::runtime_error systemError(const std::string& name, std::string_view operation, int error) {
  return std::runtime_error(
      fmt::format("{} cannot be {}: {}", name, operation, std::generic_category().message(error)));
}

std::string reasonOf(const ::arrow::Status& status) {
  return status.detail() ? status.detail()->ToString() : status.message();
}

void throwIfOutOfMemory(const ::arrow::Status& status) {
  if (status.IsOutOfMemory()) throw std::bad_alloc();
}

void check(const ::arrow::Status& status) {
  throwIfOutOfMemory(status);
  if (!status.ok()) throw std::runtime_error(status.message());
}

int reportCurrentException() {
  try {
    throw;
  } catch (const OutputClosed&) {
    return 0;
  } catch (const Interrupted&) {
    endByInterrupt();
  } catch (const UsageError& error) {
    return fail(error.what(), kWrongUsage);
  } catch (const std::filesystem::filesystem_error& error) {
    return fail(textOf(error), kFailed);
  } catch (const std::bad_alloc&) {
    return fail(kNoMemory, kFailed);
  } catch (const ::parquet::ParquetStatusException& error) {
    return fail(error.status().IsOutOfMemory() ? kNoMemory : error.what(), kFailed);
  } catch (const std::exception& error) {
    return fail(error.what(), kFailed);
  }
}

}  // namespace kyr::tool
