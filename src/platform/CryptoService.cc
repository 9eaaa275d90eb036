#include "kyr/platform/CryptoService.h"

#include <arrow/util/base64.h>
#include <sys/random.h>

#include <cerrno>
#include <string_view>
#include <system_error>

#include "kyr/platform/Path.h"

namespace kyr {

std::vector<unsigned char> CryptoService::randomBytes(std::size_t count) {
  std::vector<unsigned char> bytes(count);
  std::size_t filled = 0;
  while (filled < count) {
    const auto got = getrandom(bytes.data() + filled, count - filled, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "reading random bytes");
    }
    filled += static_cast<std::size_t>(got);
  }
  return bytes;
}

std::u16string CryptoService::base64(const std::vector<unsigned char>& bytes) {
  const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return toUtf16(::arrow::util::base64_encode(view));
}

}  // namespace kyr
