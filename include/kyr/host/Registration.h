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
/// The namespace has two methods afterwards. Listings hide both.
///
/// - "setParquetOptions" takes a struct and sets the options that it has fields for:
///   "Compression" (text: "uncompressed", "snappy", "gzip", "lzo", "brotli", "lz4_frame",
///   "lz4_hadoop" or "zstd"), "Dictionary" and "SharedTimeColumn" (logical scalars),
///   "DictionaryLimit" [bytes] and "BatchSize" [rows] (scalars, cut off to whole numbers). Other
///   fields, and fields of other kinds, are ignored. It returns true, or false when it is called
///   without arguments. It throws std::invalid_argument for a compression of another name and for a
///   number that a 32-bit integer cannot hold; nothing is changed then. What the values mean is not
///   checked here: with a BatchSize below 1, with "lzo" and with "lz4_frame" files cannot be
///   written, and the write status says so.
/// - "getParquetOptions" returns a struct of all five.
///
/// The options are those of kyr/parquet/SerializationOptions.h. They hold for the whole process and
/// reach signals and files that are made afterwards.
extern "C" {

/// \brief Set the process's host, or none with a null pointer. Returns the host before.
///
/// Only the first VXInitialize_kyr_parquet_serialization() uses it. Its allocator must outlive what
/// was registered.
KYR_PARQUET_EXPORT kyr::host::HostObjectSystem* kyr_install_host(kyr::host::HostObjectSystem* host);

/// \brief Register the methods with the installed host. If the namespace does not exist, the host
/// gets a description of it and makes the methods when it first opens it. Only the first call does
/// this; later ones do nothing, even if the first one threw.
/// \throws std::logic_error if no host is installed; that call does not count as the first
KYR_PARQUET_EXPORT void VXInitialize_kyr_parquet_serialization();

/// \brief Does nothing: what was registered stays with the host. Do not unload the library before
/// the host has deleted it.
KYR_PARQUET_EXPORT void VXTerminate_kyr_parquet_serialization();

}  // extern "C"
