#pragma once

#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "safe/SharedStore.h"
#include "safe/SignalLabel.h"

namespace kyr::parquet {

/// A file of the pool's directory that a content owns: it is deleted with the object.
class OwnedFile {
 public:
  OwnedFile(SharedStore& store, int id) : store_(&store), id_(id) {}
  ~OwnedFile() {
    if (store_ != nullptr) store_->removeFile(id_);
  }
  OwnedFile(OwnedFile&& other) noexcept
      : store_(std::exchange(other.store_, nullptr)), id_(other.id_) {}
  OwnedFile& operator=(OwnedFile&&) = delete;

  std::filesystem::path path() const { return store_->fileOf(id_); }

 private:
  SharedStore* store_;
  int id_;
};

/// What a content is known by: its id among the contents of the store, which is the name of its
/// file, and the parts that share it, which the file describes.
class ContentName {
 public:
  ContentName(std::shared_ptr<SharedStore> store, int id) : store_(std::move(store)), id_(id) {}
  ~ContentName() { store_->remove(id_); }
  ContentName(const ContentName&) = delete;
  ContentName& operator=(const ContentName&) = delete;

  SharedStore& store() const { return *store_; }
  const std::shared_ptr<SharedStore>& sharedStore() const { return store_; }
  int id() const { return id_; }
  PartLabels& labels() { return labels_; }

  /// Calls \p create with the path of a file that is to be made. If there is a file of that name,
  /// which another pool over the directory may have made, the content takes another id.
  template <typename Create>
  OwnedFile createFile(Create&& create) {
    for (;;) {
      try {
        create(store_->fileOf(id_));
        return OwnedFile(*store_, id_);
      } catch (const std::system_error& error) {
        const bool isMissing = error.code() == std::errc::no_such_file_or_directory;
        if (isMissing && store_->makeDirectory()) continue;
        if (error.code() != std::errc::file_exists) throw;
      }
      const int before = std::exchange(id_, store_->newId());
      store_->rename(before, id_);
    }
  }

 private:
  std::shared_ptr<SharedStore> store_;
  int id_;
  PartLabels labels_;
};

}  // namespace kyr::parquet
