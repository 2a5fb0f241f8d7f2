// zeplib.cpp - lifecycle calls and identities.
#include "zeplib.h"
#include "zepmemdbg.h"
#include "zepstack.h"

#include "zepos.h"

Uint32 vrnzThisIsAVRNLibrary = 0;

void zepOneTimeOnly(void) {}

void zepTerminate(void) {
    zepFreeSymDLL();
    if (zepMemIsMemFFDCAndZEPeMemDebugPathSet()) zepMemAllocList(1);
}

Uint32 zepThreadID(void) { return zepos::GetCurrentThreadId(); }
Uint32 zepProcessID(void) { return zepos::GetCurrentProcessId(); }
