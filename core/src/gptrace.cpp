// gptrace.cpp - the process side of the trace: the attached control block and the emission
// operations.
//
// No control block can be attached yet (g_pGTCB stays null), so no trace point passes its
// trace-on test and these operations are never reached; they keep the frame's calls linked.
#include "gtrace.h"

GTCB* g_pGTCB = nullptr;

void _gtraceEntry(Uint64, Uint32) {}
void _gtraceExit(Uint64, Uint32, const Uint32*, Uint32, Uint32) {}
void _gtraceVar(Uint64, Uint32, Uint16, Uint16, Uint32, ...) {}
void _gtraceErrorVar(Uint64, Uint32, Uint16, Uint16, Uint32, Uint32, Uint32, ...) {}
