// zepmemdbg.h - the memory debugger's process-wide state.
#ifndef ZEPMEMDBG_H
#define ZEPMEMDBG_H

#include "zeptypes.h"

struct ZEPMemDebugCB;

ZEP_BEGIN_C

// Directory into which memory reports go; empty while memory debugging is off.
ZEP_EXPORT extern Char g_szMemDebugLogPath[ZEP_MAX_PATH];
// Set once the debugger's mode asks for an allocation report at process end.
ZEP_EXPORT extern Bool g_bIsMemoryFFDCEnabledFlag;
// Any holder may set it to request a report of live blocks; the allocator clears it.
ZEP_EXPORT extern Bool g_bDumpMemAllocListFlag;
// The debugger's control block once full mode is in force, null otherwise.
ZEP_EXPORT extern ZEPMemDebugCB* g_pMemDebugCB;

ZEP_END_C

#endif
