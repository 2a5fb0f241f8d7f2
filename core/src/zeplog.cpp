// zeplog.cpp - the writing calls of the log.
//
// No facility can be opened yet, so every writing call meets a closed facility: it writes
// nothing and reports ECF_INVALID_PARAMETER, which the frame ignores.
#include "zeplog.h"

#include "zepecf.h"

Uint32 zepLog(ZEPLogFacility*, Uint32, Uint32, Uint32, Uint32, Sint32, ...) {
    return ECF_INVALID_PARAMETER;
}

Uint32 zepLogRC(ZEPLogFacility*, Uint32, Uint32, Uint32, Uint32, Uint32, Uint32, Sint32, ...) {
    return ECF_INVALID_PARAMETER;
}

Uint32 zepLogSysRC(ZEPLogFacility*, Uint32, Uint32, Uint32, Uint32, Uint32, Uint32, Sint32, ...) {
    return ECF_INVALID_PARAMETER;
}
