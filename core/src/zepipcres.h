// zepipcres.h - what the IPC classes share inside the library.
#ifndef ZEPIPCRES_H
#define ZEPIPCRES_H

#include "zepipc.h"

// The body of every class's authorize: the parameter checks under the caller's identifier, the
// stamp traced, success.
Uint32 zep_authorize(Uint32 functionId, const ZEPIPCSecurityParam* param);

#endif
