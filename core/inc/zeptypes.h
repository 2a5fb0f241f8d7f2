// zeptypes.h - the integer vocabulary and the export macros every zep header uses.
#ifndef ZEPTYPES_H
#define ZEPTYPES_H

#include <stdint.h>

typedef uint8_t Uint8;
typedef uint16_t Uint16;
typedef uint32_t Uint32;
typedef uint64_t Uint64;
typedef int8_t Sint8;
typedef int16_t Sint16;
typedef int32_t Sint32;
typedef int64_t Sint64;
// One byte in every structure; any non-zero value is true.
typedef unsigned char Bool;
typedef char Char;
typedef const char* String;

#if defined(ZEP_BUILDING_LIBRARY)
#define ZEP_EXPORT __attribute__((visibility("default")))
#else
#define ZEP_EXPORT
#endif

#ifdef __cplusplus
#define ZEP_EXTERN_C extern "C"
#define ZEP_BEGIN_C extern "C" {
#define ZEP_END_C }
#else
#define ZEP_EXTERN_C
#define ZEP_BEGIN_C
#define ZEP_END_C
#endif

// The version word that constructors of parameter objects stamp, and the
// oldest stamp an operation accepts. Stamps compare as plain unsigned numbers,
// so the date-shaped stamps of old callers and the version word share one test.
#define ZEP_VERSION_WORD ((Uint32)0x09010007u)
#define ZEP_MIN_VERSION_STAMP ((Uint32)20040702u)

// Platform path rules: one separator, one buffer size.
#define ZEP_PATH_SEPARATOR '/'
#define ZEP_PATH_SEPARATOR_STR "/"
#define ZEP_MAX_PATH 260

#endif
