#include "kyr/host/Registration.h"

#include <stdexcept>
#include <utility>

#include "host/LibraryNamespaces.h"

namespace {

kyr::host::HostObjectSystem* installedHost = nullptr;
bool isInitialized = false;

}  // namespace

kyr::host::HostObjectSystem* kyr_install_host(kyr::host::HostObjectSystem* host) {
  return std::exchange(installedHost, host);
}

void VXInitialize_kyr_parquet_serialization() {
  if (isInitialized) return;
  if (installedHost == nullptr) {
    throw std::logic_error("no host is installed: call kyr_install_host first");
  }
  isInitialized = true;
  kyr::host::registerLibrary(*installedHost);
}

void VXTerminate_kyr_parquet_serialization() {}
