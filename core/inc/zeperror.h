// zeperror.h - from a platform error number to what callers and logs see.
//
// The platform error numbers are those of the OS layer (2 file not found, 3 path not found,
// 5 access denied, 32 sharing violation, 183 already exists, ...). A few platform functions
// report numbers of the C runtime instead (access, _stat); the calledId tells them apart.
#ifndef ZEPERROR_H
#define ZEPERROR_H

#include "zeptypes.h"

ZEP_BEGIN_C

// The ECF code an operation returns for a failed platform call, and in *level (if not null)
// the log level of that failure: 2 for the failures that point at damage or exhaustion
// (unknown, out of memory, out of handles, device not ready, sharing violation), 4 otherwise.
// callerId and probe don't change the result; they keep every call site naming its place.
ZEP_EXPORT Uint32 zepErrorMapSystem(Uint32 callerId, Uint32 probe, Uint32 calledId,
                                    Uint32 osError, Uint32* level);

// The symbolic name of a platform error for a log record, or null when it has none.
ZEP_EXPORT String zepErrorNameMapSystem(Uint32 calledId, Uint32 osError);

ZEP_END_C

#endif
