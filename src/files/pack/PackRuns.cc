#include "files/pack/PackRuns.h"

#include <fmt/format.h>

#include <charconv>
#include <iterator>
#include <limits>
#include <system_error>

namespace kyr::parquet {

namespace {

// Takes a number off the front of a text.
template <typename Number>
bool take(std::string_view& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

bool take(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

bool takeIds(std::string_view& text, std::vector<std::pair<int, int>>& ids) {
  int last = -1;
  do {
    int from = 0;
    if (!take(text, from) || from <= last) return false;
    int to = from;
    if (take(text, '-') && (!take(text, to) || to <= from)) return false;
    ids.emplace_back(from, to);
    last = to;
  } while (take(text, ','));
  return true;
}

// The rows of a group; none if they are more than \p most.
std::optional<std::uint64_t> rowsOf(const PackRunGroup& group, std::uint64_t most) {
  std::uint64_t contents = 0;
  for (const auto& [from, to] : group.ids) contents += static_cast<std::uint64_t>(to - from) + 1;
  if (group.count == 0 || contents > most / group.count) return std::nullopt;
  if (group.count > std::numeric_limits<std::uint64_t>::max() - group.first) return std::nullopt;
  return contents * group.count;
}

}  // namespace

std::string writeRuns(const std::vector<PackRun>& runs) {
  std::string text;
  const auto out = std::back_inserter(text);
  for (std::size_t i = 0; i < runs.size();) {
    const PackRun& head = runs[i];
    fmt::format_to(out, "{}+{} ", head.first, head.count);
    for (bool isFirst = true;
         i < runs.size() && runs[i].first == head.first && runs[i].count == head.count;
         isFirst = false) {
      const int from = runs[i].storageId;
      int to = from;
      for (++i; i < runs.size() && runs[i].first == head.first && runs[i].count == head.count &&
                runs[i].storageId == to + 1;
           ++i) {
        ++to;
      }
      if (!isFirst) text += ',';
      fmt::format_to(out, "{}", from);
      if (to > from) fmt::format_to(out, "-{}", to);
    }
    text += ';';
  }
  return text;
}

std::optional<std::vector<PackRunGroup>> readRuns(std::string_view text, std::uint64_t rows) {
  std::vector<PackRunGroup> groups;
  std::uint64_t sum = 0;
  while (!text.empty()) {
    PackRunGroup group;
    if (!take(text, group.first) || !take(text, '+') || !take(text, group.count) ||
        !take(text, ' ') || !takeIds(text, group.ids) || !take(text, ';')) {
      return std::nullopt;
    }
    const auto more = rowsOf(group, rows - sum);
    if (!more) return std::nullopt;
    sum += *more;
    groups.push_back(std::move(group));
  }
  if (sum != rows) return std::nullopt;
  return groups;
}

void PackIndex::add(const std::vector<PackRunGroup>& groups, std::uint64_t rows) {
  std::uint64_t row = rows_;
  for (const PackRunGroup& group : groups) {
    const auto index = static_cast<std::uint32_t>(groups_.size());
    groups_.push_back({row, group.first, group.count, ids_.size(), group.ids.size()});
    ids_.insert(ids_.end(), group.ids.begin(), group.ids.end());
    std::uint64_t contents = 0;
    for (const auto& [from, to] : group.ids) contents += static_cast<std::uint64_t>(to - from) + 1;
    row += contents * group.count;
    if (contents > kSmall) {
      large_.push_back(index);
      continue;
    }
    for (const auto& [from, to] : group.ids) {
      for (std::int64_t id = from; id <= to; ++id) {
        groupsOf_[static_cast<int>(id)].push_back(index);
      }
    }
  }
  rows_ += rows;
}

}  // namespace kyr::parquet
