// zeplib.cpp - lifecycle calls and identities.
#include "zeplib.h"

#include "zepos.h"

Uint32 vrnzThisIsAVRNLibrary = 0;

void zepOneTimeOnly(void) {}

void zepTerminate(void) {
    // The report of live blocks at process end comes with the memory debugger; until then there
    // is nothing to write.
}

Uint32 zepThreadID(void) { return zepos::GetCurrentThreadId(); }
Uint32 zepProcessID(void) { return zepos::GetCurrentProcessId(); }
