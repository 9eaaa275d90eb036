// A host that does not link the library: kyr_loading_host LIBRARY WAY loads it at run time and
// registers its methods. WAY says which namespaces the host has before: "nothing", "outer" or
// "both". The exit status is 0 if everything worked.

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "kyr/host/ReferenceHost.h"
#include "support/FlakyAllocator.h"

namespace {

using kyr::host::HostObjectSystem;
using kyr::host::HostValue;
using kyr::host::ReferenceHost;

template <typename Function>
Function* find(void* library, const char* name) {
  void* symbol = dlsym(library, name);
  if (symbol == nullptr) throw std::runtime_error(dlerror());
  return reinterpret_cast<Function*>(symbol);
}

void expect(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("not so: ") + what);
}

void run(void* library, const std::string& way) {
  auto* install = find<HostObjectSystem*(HostObjectSystem*)>(library, "kyr_install_host");
  auto* initialize = find<void()>(library, "VXInitialize_kyr_parquet_serialization");
  auto* terminate = find<void()>(library, "VXTerminate_kyr_parquet_serialization");
  bool isRefused = false;
  try {
    initialize();
  } catch (const std::logic_error&) {
    isRefused = true;
  }
  expect(isRefused, "without a host there is nothing to register with");
  kyr::test::FlakyAllocator memory;
  {
    ReferenceHost host(memory);
    if (way == "outer") host.defineNamespace("Tarnwick");
    if (way == "both") host.defineNamespace("Tarnwick.kyr");
    install(&host);
    initialize();
    const int registered = memory.total;
    expect(registered == (way == "both" ? 2 : 1), "the host holds what that way takes");
    initialize();
    expect(memory.total == registered, "a second call registers nothing");
    terminate();

    HostValue options = host.createStruct(1, 1, {"Compression", "BatchSize"});
    options->setField(0, "Compression", host.createString(u"zstd"));
    options->setField(0, "BatchSize", host.createNumber(2.9));
    const HostValue done = host.invoke("Tarnwick.kyr.setParquetOptions", std::move(options));
    expect(done->isLogicalScalarTrue(), "options are set");
    const HostValue values = host.invoke("Tarnwick.kyr.getParquetOptions");
    expect(values->field(0, "Compression")->text() == u"zstd", "the codec is told");
    expect(values->field(0, "BatchSize")->scalar() == 2, "the number is cut off");
    expect(values->field(0, "SharedTimeColumn")->isLogicalScalarTrue(), "others stay");
  }
  expect(memory.live == 0, "everything came back");
  expect(install(nullptr) != nullptr, "the host was installed");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  try {
    run(library, argv[2]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
