// gtrace.h - the process-spanning trace.
//
// Every trace point of the library tests g_pGTCB and the control block's enable word (its
// second Uint32) before it calls an emission operation; nothing is computed before that test.
#ifndef GTRACE_H
#define GTRACE_H

#include "zeptypes.h"

struct GTCB;

ZEP_BEGIN_C

// The control block this process is attached to, or null.
ZEP_EXPORT extern GTCB* g_pGTCB;

// Emission operations. T is the caller's thread identifier, F the function identifier.
// A Var item is three arguments: Uint32 kind (0 for the library's own: the data word is an
// address), Uint32 length, and the data word (pointer-sized).
ZEP_EXPORT void _gtraceEntry(Uint64 threadId, Uint32 functionId);
ZEP_EXPORT void _gtraceExit(Uint64 threadId, Uint32 functionId, const Uint32* rc, Uint32 word1,
                            Uint32 word2);
ZEP_EXPORT void _gtraceVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                           Uint32 itemCount, ...);
ZEP_EXPORT void _gtraceErrorVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                                Uint32 word1, Uint32 word2, Uint32 itemCount, ...);

ZEP_END_C

#endif
