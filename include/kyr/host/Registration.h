#pragma once

#include "kyr/host/HostObjectSystem.h"
#include "kyr/platform/export.h"

/// \brief How a host makes the library's methods reachable in its namespace "Tarnwick.kyr".
///
/// The functions have C linkage, so that a host which loads the library at run time finds them by
/// name:
///
///     void* library = dlopen("libkyr_parquet_serialization.so", RTLD_NOW);
///     auto install = reinterpret_cast<decltype(&kyr_install_host)>(
///         dlsym(library, "kyr_install_host"));
///     auto initialize = reinterpret_cast<void (*)()>(
///         dlsym(library, "VXInitialize_kyr_parquet_serialization"));
///     install(&host);
///     initialize();
///
/// They may throw C++ exceptions, so call them from C++. One thread at a time.
///
/// Two methods are there afterwards. Listings hide both.
///
/// - "setParquetOptions" takes a struct and sets the options that it has fields for:
///   "Compression" (text: "uncompressed", "snappy", "gzip", "lzo", "brotli", "lz4_frame",
///   "lz4_hadoop" or "zstd"), "Dictionary" and "SharedTimeColumn" (logical scalars),
///   "DictionaryLimit" and "BatchSize" (scalars, cut off to whole numbers). Other fields, and fields
///   of other kinds, are ignored. Returns true, or false when it is called without arguments. A
///   compression of another name, or a number that a 32-bit integer cannot hold, is
///   std::invalid_argument, and nothing is changed then. What the numbers mean is not checked:
///   files are not written with a BatchSize below 1 (the write status says so), and Parquet has no
///   "lzo" and no "lz4_frame" (it says so as well).
/// - "getParquetOptions" returns a struct of all five.
///
/// The options are those of kyr/parquet/SerializationOptions.h: they are the process's, and reach
/// signals and files that are made afterwards.
extern "C" {

/// \brief Set the process's host; null to forget it. Returns the one before.
///
/// It is used by the first VXInitialize_kyr_parquet_serialization() only; its allocator must outlive
/// what was registered.
KYR_PARQUET_EXPORT kyr::host::HostObjectSystem* kyr_install_host(kyr::host::HostObjectSystem* host);

/// \brief Register the methods with the installed host, or leave word there of how to make them when
/// the namespace is first opened. The first call does it; later ones do nothing, even if the first
/// one threw.
/// \throws std::logic_error if no host is installed; that call does not count as the first
KYR_PARQUET_EXPORT void VXInitialize_kyr_parquet_serialization();

/// \brief Does nothing: what was registered stays with the host. Do not unload the library before
/// the host has deleted it.
KYR_PARQUET_EXPORT void VXTerminate_kyr_parquet_serialization();

}  // extern "C"
