#include "kyr/parquet/FileSelector.h"

#include <array>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kyr::parquet::FileSelector {

std::unique_ptr<Context> create(const Path& directory) {
  auto context = std::make_unique<Context>();
  context->directory = directory;
  context->iterator = directory_iterator(directory);
  return context;
}

directory_iterator next(Context* context) {
  if (!context) throw std::invalid_argument("no context for the directory walk");
  if (context->iterator == directory_iterator()) return context->iterator;
  if (context->started) {
    ++context->iterator;
  } else {
    context->started = true;
  }
  return context->iterator;
}

directory_iterator next(Context* context, std::function<bool(const directory_iterator&)> filter) {
  for (;;) {
    directory_iterator it = next(context);
    if (it == directory_iterator() || filter(it)) return it;
  }
}

bool parquetFileFilter(const directory_iterator& it) {
  const DirectoryEntry entry = it.entry();
  // Opening a pipe would wait for somebody who writes into it.
  if (entry.type() != DirectoryEntry::Type::file) return false;
  std::ifstream file(entry.filesystemPath(), std::ios::binary);
  if (!file) return false;
  // Filled with zeros, so that a file of fewer than four bytes never matches.
  std::array<char, 4> magic{};
  file.read(magic.data(), magic.size());
  return !file.bad() && std::memcmp(magic.data(), "PAR1", magic.size()) == 0;
}

}  // namespace kyr::parquet::FileSelector
