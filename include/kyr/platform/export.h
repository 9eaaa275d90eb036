#pragma once

// KYR_PARQUET_EXPORT marks what the shared library shows; everything else is hidden. It lives in
// the lowest layer because every layer above uses it.

#if defined(_WIN32)
#if defined(KYR_BUILDING_LIBRARY)
#define KYR_PARQUET_EXPORT __declspec(dllexport)
#else
#define KYR_PARQUET_EXPORT __declspec(dllimport)
#endif
#else
#define KYR_PARQUET_EXPORT __attribute__((visibility("default")))
#endif
