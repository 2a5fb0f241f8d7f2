// zepstartup.cpp - the start-up pass and the end-of-process pass of the library.
//
// There is no initialisation call: the dynamic loader runs the start-up pass when libzep.so is
// loaded into a process, before any of its exports can be called, and the end pass when the
// library is unloaded or the process exits, after the caller's own destructors of later-loaded
// objects. Each step either succeeds or leaves its all-zero default; nothing here can fail in a
// way a caller sees.
#include "zeplib.h"
#include "zepatomic.h"
#include "zeplatch.h"
#include "zepmemdbg.h"

Bool g_bIsPlatformID_Win32OnNT = 0;
Bool g_bIsPlatformID_Win2k = 0;
Bool g_bIsPlatformID_WinXP = 0;
Bool g_bIsPlatformID_Win2k3 = 0;
Bool g_bIsPlatformID_Vista = 0;
Bool g_bIsPlatformID_Longhorn = 0;
Bool g_bIsPlatformID_Win32On95 = 0;
Bool g_bIsPlatformID_Win98 = 0;
Bool g_bIsPlatformID_WinMe = 0;
Bool g_bRunningTerminalService = 0;
Bool g_bRunningTerminalServiceRemoteAdminMode = 0;

namespace {

Bool s_startupPending = 1;

// The platform flags name versions of another platform; on this one there is no version that
// they could describe, so they keep their zero. The terminal-service tests likewise find no
// terminal service here.
void setPlatformFlags() {}

__attribute__((constructor)) void zepStartupPass() {
    // Cleared first, so the pass runs once even if the constructor should run again.
    if (!s_startupPending) return;
    s_startupPending = 0;

    zepLatchTuneForProcessors();
    zepTickRegisterTest();
    zepMemOneTimeOnly();
    setPlatformFlags();
}

__attribute__((destructor)) void zepEndPass() {
    // The symbol engine is unloaded first once it exists; the report of live blocks comes last.
    zepTerminate();
}

}  // namespace
