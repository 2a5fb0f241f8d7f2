// zepos_tls.h - thread-local slot stand-ins of the OS layer: TlsAlloc, TlsFree, TlsGetValue,
// TlsSetValue.
//
// A slot index is a POSIX thread-specific data key; every thread sees null in a slot it hasn't
// set. What the Linux build honours of the platform's contracts:
//  - TlsAlloc fails with TLS_OUT_OF_INDEXES and 8 (not enough memory) when the keys run out.
//  - An index that this layer hasn't handed out, or has freed, is refused with 87 by TlsFree,
//    TlsGetValue (null) and TlsSetValue; freeing twice fails the second time.
//  - TlsGetValue clears the last error when it succeeds, so a caller tells a real null value
//    (null, last error 0) from a refused index (null, 87).
//  - Freeing an index forgets the values of all threads and runs no destructor, and an index
//    may be handed out again afterwards.
#ifndef ZEPOS_TLS_H
#define ZEPOS_TLS_H

#include "zeptypes.h"

namespace zepos {

inline constexpr Uint32 TLS_OUT_OF_INDEXES = 0xFFFFFFFFu;

Uint32 TlsAlloc();
BOOL TlsFree(Uint32 index);
void* TlsGetValue(Uint32 index);
BOOL TlsSetValue(Uint32 index, void* value);

}  // namespace zepos

#endif
