#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

#include "kyr/parquet/RedundancyEliminator.h"
#include "platform/ZeroedMemory.h"

namespace kyr::parquet::RedundancyEliminator {

namespace {

// The address sanitizer sees what is used after it was freed if each node has memory of its own.
#if defined(__SANITIZE_ADDRESS__)
#define KYR_HAS_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KYR_HAS_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef KYR_HAS_ADDRESS_SANITIZER
constexpr bool kUsesSlabs = false;
#else
constexpr bool kUsesSlabs = true;
#endif

// A slab begins at a multiple of its size, so that a node's address tells its slab.
constexpr std::size_t kSlabSize = std::size_t{64} << 10U;

struct alignas(64) Slab {
  std::atomic<std::size_t> live;  // nodes in use, and those that were not handed out yet
  Slab* next;                     // in the list of free slabs
};

constexpr std::size_t kNodes = (kSlabSize - sizeof(Slab)) / sizeof(FileNode);

// Slabs without nodes. They are for all threads, and stay until the process ends.
class FreeSlabs {
 public:
  Slab* take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!first_) add();
    Slab* const slab = first_;
    first_ = slab->next;
    return slab;
  }
  void give(Slab* slab) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    slab->next = first_;
    first_ = slab;
  }

 private:
  // A process with few nodes touches no huge page, which the system would have to clear for it.
  static constexpr std::size_t kSingleSlabs = 16;

  void add() {
    if (singleSlabs_ < kSingleSlabs) {
      void* const memory = std::aligned_alloc(kSlabSize, kSlabSize);
      if (!memory) throw std::bad_alloc();
      ++singleSlabs_;
      first_ = new (memory) Slab{{0}, first_};
      return;
    }
    char* const region = regions_.emplace_back(platform::kHugePage).data();
    for (std::size_t at = platform::kHugePage; at > 0; at -= kSlabSize) {
      first_ = new (region + at - kSlabSize) Slab{{0}, first_};
    }
  }

  std::mutex mutex_;
  Slab* first_ = nullptr;
  std::size_t singleSlabs_ = 0;
  std::vector<platform::ZeroedMemory> regions_;
};

// Never destroyed: pools that are static objects free their nodes after everything else is gone.
FreeSlabs& freeSlabs() {
  static FreeSlabs* const slabs = new FreeSlabs;
  return *slabs;
}

void drop(Slab* slab, std::size_t nodes) noexcept {
  if (slab->live.fetch_sub(nodes) == nodes) freeSlabs().give(slab);
}

// The slab from which this thread takes nodes. It counts as a node itself while it is open.
struct OpenSlab {
  ~OpenSlab() { close(); }
  void close() noexcept {
    if (slab) drop(slab, kNodes - used + 1);
    slab = nullptr;
    used = kNodes;
  }
  void change() {
    close();
    slab = freeSlabs().take();
    slab->live = kNodes + 1;
    used = 0;
  }

  Slab* slab = nullptr;
  std::size_t used = kNodes;
};

void* allocateNode() {
  thread_local OpenSlab open;
  if (open.used == kNodes) open.change();
  return reinterpret_cast<FileNode*>(open.slab + 1) + open.used++;
}

void freeNode(void* node) noexcept {
  const std::size_t offset = reinterpret_cast<std::uintptr_t>(node) % kSlabSize;
  drop(reinterpret_cast<Slab*>(static_cast<char*>(node) - offset), 1);
}

}  // namespace

void* FileNode::operator new(std::size_t size) {
  return kUsesSlabs && size == sizeof(FileNode) ? allocateNode() : ::operator new(size);
}

void FileNode::operator delete(void* node, std::size_t size) noexcept {
  if (kUsesSlabs && size == sizeof(FileNode)) {
    freeNode(node);
  } else {
    ::operator delete(node);
  }
}

}  // namespace kyr::parquet::RedundancyEliminator
