#include "kyr/parquet/DirectoryUtilities.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "kyr/platform/CryptoService.h"
#include "kyr/platform/FileSystem.h"

namespace kyr::parquet {

Path generateTempDirectoryName(const std::u16string& prefix) {
  constexpr std::size_t kRandomBytes = 32;
  std::u16string random = CryptoService::base64(CryptoService::randomBytes(kRandomBytes));
  std::replace(random.begin(), random.end(), u'/', u'_');
  return fileSystem::temporaryDirectory().native().join(Path(prefix + u"_" + random));
}

void createDirectory(const Path& path) {
  if (fileSystem::exists(path)) throw std::runtime_error(path.toNarrow() + " already exists.");
  std::filesystem::path growing;
  for (const auto& element : path.toFilesystem()) {
    growing /= element;
    const Path step = Path::fromFilesystem(growing);
    if (!fileSystem::exists(step)) fileSystem::createOneDirectory(step);
  }
}

}  // namespace kyr::parquet
