/// @file
/// Integer types that every in-house library shares, and the export mark of the platform's operations.
#pragma once

#include <cstddef>
#include <cstdint>

#ifdef _WIN32
typedef unsigned long ZR_ULONG;   ///< 32 bits; unsigned long so that names mangle as they do there
typedef unsigned short ZR_USHORT; ///< 16 bits
#else
typedef uint32_t ZR_ULONG;  ///< 32 bits on every platform
typedef uint16_t ZR_USHORT; ///< 16 bits
#endif

static_assert(sizeof(ZR_ULONG) == 4, "a ZR_ULONG has 32 bits");
static_assert(sizeof(ZR_USHORT) == 2, "a ZR_USHORT has 16 bits");

/// Marks what a platform library exports (and what the interfaces' type information needs): libraries are built with
/// hidden visibility.
#ifdef _WIN32
#define ZR_PLATFORM_API
#else
#define ZR_PLATFORM_API __attribute__((visibility("default")))
#endif
