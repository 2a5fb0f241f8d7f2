// zeplib.h - the library's life in a process, and the identities every record carries.
//
// There is no initialisation call. The library runs its start-up pass when it is loaded into a
// process (latch tuning, tick support, memory debug settings, platform flags, in that order) and
// its end-of-process pass when it is unloaded or the process exits.
#ifndef ZEPLIB_H
#define ZEPLIB_H

#include "zeptypes.h"

ZEP_BEGIN_C

// Does nothing at all; kept for callers that call it.
ZEP_EXPORT void zepOneTimeOnly(void);

// The end-of-process step: writes the memory report at process end if one was asked for.
// It closes no facility, detaches no trace and frees nothing; calling it again writes the
// report again.
ZEP_EXPORT void zepTerminate(void);

ZEP_EXPORT Uint32 zepThreadID(void);
ZEP_EXPORT Uint32 zepProcessID(void);

// Platform flags of the start-up pass. They describe versions of another platform and stay 0
// on this one; they are exported because callers read them.
ZEP_EXPORT extern Bool g_bIsPlatformID_Win32OnNT;
ZEP_EXPORT extern Bool g_bIsPlatformID_Win2k;
ZEP_EXPORT extern Bool g_bIsPlatformID_WinXP;
ZEP_EXPORT extern Bool g_bIsPlatformID_Win2k3;
ZEP_EXPORT extern Bool g_bIsPlatformID_Vista;
ZEP_EXPORT extern Bool g_bIsPlatformID_Longhorn;
ZEP_EXPORT extern Bool g_bIsPlatformID_Win32On95;
ZEP_EXPORT extern Bool g_bIsPlatformID_Win98;
ZEP_EXPORT extern Bool g_bIsPlatformID_WinMe;
ZEP_EXPORT extern Bool g_bRunningTerminalService;
ZEP_EXPORT extern Bool g_bRunningTerminalServiceRemoteAdminMode;

// A marker export that tells a loader this is one of the product's libraries; nothing reads it.
ZEP_EXPORT extern Uint32 vrnzThisIsAVRNLibrary;

ZEP_END_C

#endif
