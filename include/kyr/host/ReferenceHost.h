#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "kyr/host/HostClient.h"
#include "kyr/host/HostObjectSystem.h"
#include "kyr/platform/export.h"

namespace kyr::host {

/// \brief Memory from the process's heap, with a count of the allocations.
class KYR_PARQUET_EXPORT ReferenceAllocator final : public HostAllocator {
 public:
  void* allocateZeroed(std::size_t size) override;
  void release(void* memory) noexcept override;
  /// \throws std::bad_alloc
  [[noreturn]] void throwOutOfMemory(std::size_t size) override;

  /// \brief The number of allocations that were not released yet.
  std::size_t live() const noexcept { return live_; }

 private:
  std::size_t live_ = 0;
};

/// \brief A complete host in the process: namespaces, methods called by name, and arrays.
///
/// It serves programs without a scripting language of their own and tests, and shows how the
/// interfaces are meant. Typical use:
///
///     ReferenceHost host;
///     kyr_install_host(&host);
///     VXInitialize_kyr_parquet_serialization();
///     HostValue options = host.createStruct(1, 1, {"Compression"});
///     options->setField(0, "Compression", host.createString(u"zstd"));
///     host.invoke("Tarnwick.kyr.setParquetOptions", std::move(options));
///
/// Everything that was added is deleted with the host. Destroy all arrays before the host. Failures
/// are std::invalid_argument (an unknown name; an element, field or class that an array does not
/// have) or the allocator's exception. One thread at a time. Neither movable nor copyable.
class KYR_PARQUET_EXPORT ReferenceHost final : public HostObjectSystem, public HostClient {
 public:
  /// \brief A host with a ReferenceAllocator of its own.
  ReferenceHost();

  /// \param allocator  memory for arrays and for what libraries add; must outlive the host
  explicit ReferenceHost(HostAllocator& allocator);
  ~ReferenceHost() override;
  ReferenceHost(const ReferenceHost&) = delete;
  ReferenceHost& operator=(const ReferenceHost&) = delete;

  /// \name Namespaces and methods
  /// @{

  /// \brief Make an empty namespace and the namespaces that it lies in, unless they exist.
  HostNamespace& defineNamespace(const std::string& dottedName);

  HostNamespace* findNamespace(const std::string& dottedName) override;
  void addNamespace(std::unique_ptr<HostNamespaceInfo> info) override;
  HostAllocator& allocator() override;

  /// \brief Sorted names of the visible methods in a namespace. Opens the namespace.
  std::vector<std::string> listMethods(const std::string& namespaceName);

  /// \brief The method of a full name such as "A.B.method", or null. Opens its namespace.
  const HostMethodInfo* findMethod(const std::string& fullName);

  /// \brief Call a method and return its outputs.
  /// \throws std::invalid_argument if there is no such method, and what the method throws
  std::vector<HostValue> invoke(const std::string& fullName, const std::vector<HostValue>& inputs);

  /// \brief Call a method with one input, or with none if \p input holds no array, and return its
  /// first output.
  HostValue invoke(const std::string& fullName, HostValue input = {});

  /// @}
  /// \name Arrays
  /// @{

  HostValue createStruct(std::size_t rows, std::size_t columns,
                         const std::vector<std::string>& fieldNames) const override;
  HostValue createString(const std::u16string& text) const override;
  HostValue createLogicalScalar(bool value) const override;
  HostValue createNumeric(std::size_t rows, std::size_t columns,
                          NumericClass numericClass) const override;

  /// \brief A 1-by-1 double.
  HostValue createNumber(double value) const;
  HostValue createLogical(std::size_t rows, std::size_t columns) const;  ///< all false

  /// \brief Names of a struct's fields in order; empty for other arrays.
  static std::vector<std::string> fieldNames(const HostArray& array);

  /// \brief "char", "logical", "struct" or a numeric class such as "int32".
  static std::string className(const HostArray& array);

  /// @}

 private:
  class Namespace;
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::host
