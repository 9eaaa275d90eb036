#include "recording/SignalNames.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>

namespace kyr::recording {

namespace {

using Letters = std::u32string;

// UTF-8 taken apart. Bytes that are no UTF-8 stand for themselves.
Letters lettersOf(std::string_view text) {
  Letters letters;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t size = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    char32_t letter = size == 1 ? lead : lead & (0x7FU >> size);
    for (std::size_t k = 1; k < size && i + k < text.size(); ++k) {
      letter = (letter << 6U) | (static_cast<unsigned char>(text[i + k]) & 0x3FU);
    }
    letters.push_back(letter);
    i += size;
  }
  return letters;
}

// A letter that may stand behind a backslash.
char32_t takeLetter(const Letters& pattern, std::size_t& at) {
  if (pattern[at] == U'\\' && at + 1 < pattern.size()) ++at;
  return pattern[at++];
}

// Whether a set such as "[a-z_]" holds a letter. Moves \p at behind the set; none if "]" is
// missing.
std::optional<bool> isInSet(const Letters& pattern, std::size_t& at, char32_t letter) {
  std::size_t next = at + 1;
  const bool isNot = next < pattern.size() && (pattern[next] == U'!' || pattern[next] == U'^');
  if (isNot) ++next;
  bool isIn = false;
  for (bool isFirst = true; next < pattern.size(); isFirst = false) {
    if (pattern[next] == U']' && !isFirst) {
      at = next + 1;
      return isIn != isNot;
    }
    const char32_t low = takeLetter(pattern, next);
    char32_t high = low;
    if (next + 1 < pattern.size() && pattern[next] == U'-' && pattern[next + 1] != U']') {
      ++next;
      high = takeLetter(pattern, next);
    }
    isIn = isIn || (letter >= low && letter <= high);
  }
  return std::nullopt;
}

// Whether the part of the pattern for one letter, at \p at, is for this one; moves behind it.
bool takesLetter(const Letters& pattern, std::size_t& at, char32_t letter) {
  if (pattern[at] == U'?') return ++at, true;
  if (pattern[at] == U'[') {
    if (const auto isIn = isInSet(pattern, at, letter)) return *isIn;
  }
  return takeLetter(pattern, at) == letter;
}

// Letters to insert, remove or replace to make one word of the other.
std::size_t distance(const Letters& a, const Letters& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

bool matchesPattern(std::string_view name, std::string_view pattern) {
  const Letters letters = lettersOf(name);
  const Letters parts = lettersOf(pattern);
  std::size_t at = 0;               // in the pattern
  std::size_t next = 0;             // letter
  std::optional<std::size_t> star;  // behind the last "*"
  std::size_t starLetter = 0;       // where what follows that "*" was tried last
  while (next < letters.size()) {
    if (at < parts.size() && parts[at] == U'*') {
      star = ++at;
      starLetter = next;
      continue;
    }
    std::size_t behind = at;
    if (at < parts.size() && takesLetter(parts, behind, letters[next])) {
      at = behind;
      ++next;
      continue;
    }
    if (!star) return false;
    at = *star;
    next = ++starLetter;
  }
  while (at < parts.size() && parts[at] == U'*') ++at;
  return at == parts.size();
}

SignalNames::SignalNames(const std::vector<SignalInfo>& signals) : signals_(signals) {
  ids_.reserve(signals.size());
  for (const SignalInfo& signal : signals) ids_.emplace(signal.name, signal.signalId);
}

std::vector<int> SignalNames::called(const std::string& name) const {
  std::vector<int> ids;
  const auto [begin, end] = ids_.equal_range(name);
  for (auto it = begin; it != end; ++it) ids.push_back(it->second);
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<int> SignalNames::matching(std::string_view pattern) const {
  std::vector<int> ids;
  for (const SignalInfo& signal : signals_) {
    if (matchesPattern(signal.name, pattern)) ids.push_back(signal.signalId);
  }
  return ids;
}

std::string SignalNames::nearest(std::string_view name) const {
  constexpr std::size_t kMaxLetters = 200;  // nobody types longer names
  const Letters wanted = lettersOf(name);
  std::size_t least = std::max<std::size_t>(1, wanted.size() / 3) + 1;
  const SignalInfo* found = nullptr;
  for (const SignalInfo& signal : signals_) {
    if (signal.name.size() > kMaxLetters || wanted.size() > kMaxLetters) continue;
    const Letters letters = lettersOf(signal.name);
    const std::size_t longer = std::max(letters.size(), wanted.size());
    if (longer - std::min(letters.size(), wanted.size()) >= least) continue;
    const std::size_t letterDistance = distance(wanted, letters);
    if (letterDistance >= least) continue;
    least = letterDistance;
    found = &signal;
  }
  return found != nullptr ? found->name : "";
}

}  // namespace kyr::recording
