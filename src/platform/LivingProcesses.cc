#include "platform/LivingProcesses.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace kyr {

namespace fs = std::filesystem;

namespace {

bool belongsToThisUser(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && status.st_uid == ::geteuid();
}

bool hasLoaded(const fs::path& process, const std::string& library) {
  std::ifstream maps(process / "maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find("/" + library) != std::string::npos) return true;
  }
  return false;
}

std::chrono::nanoseconds timeSinceBoot() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// The line has the name of the program in parentheses, then blank-separated fields; the start, in
// ticks since the system was booted, is the 20th of these.
std::optional<std::chrono::nanoseconds> startOf(const fs::path& process) {
  std::ifstream file(process / "stat");
  std::string line;
  std::getline(file, line);
  std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));
  std::string field;
  for (int i = 0; i < 19; ++i) fields >> field;
  std::int64_t ticks = 0;
  if (!(fields >> ticks)) return std::nullopt;
  const std::int64_t perSecond = ::sysconf(_SC_CLK_TCK);
  return std::chrono::nanoseconds(ticks * (1'000'000'000 / perSecond));
}

}  // namespace

std::optional<fs::file_time_type> startOfOldestProcessWith(const std::string& library) {
  std::optional<std::chrono::nanoseconds> oldest;
  std::error_code ignored;
  for (fs::directory_iterator it("/proc", ignored), end; it != end; it.increment(ignored)) {
    const std::string name = it->path().filename().string();
    const bool isProcess = name.find_first_not_of("0123456789") == std::string::npos;
    if (!isProcess || name == std::to_string(::getpid()) || !belongsToThisUser(it->path()) ||
        !hasLoaded(it->path(), library)) {
      continue;
    }
    const auto start = startOf(it->path());
    if (start && (!oldest || *start < *oldest)) oldest = start;
  }
  if (!oldest) return std::nullopt;
  const auto age = timeSinceBoot() - *oldest;
  return fs::file_time_type::clock::now() -
         std::chrono::duration_cast<fs::file_time_type::duration>(age);
}

}  // namespace kyr
