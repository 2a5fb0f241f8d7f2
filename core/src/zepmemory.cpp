// zepmemory.cpp - the memory debugger's process-wide state.
#include "zepmemdbg.h"

Char g_szMemDebugLogPath[ZEP_MAX_PATH] = {};
Bool g_bIsMemoryFFDCEnabledFlag = 0;
Bool g_bDumpMemAllocListFlag = 0;
ZEPMemDebugCB* g_pMemDebugCB = nullptr;
